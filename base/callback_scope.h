// Tracks per thread which callbacks are running, to detect re-entrant calls that would deadlock.
#pragma once

#include <atomic>

namespace lumora {

enum class Side { CLIENT, SERVER };

// While one lives, its thread runs an application callback of the given side, under that side's callback
// lock.
class CallbackScope {
public:
    explicit CallbackScope(Side side);
    ~CallbackScope();
    CallbackScope(const CallbackScope&) = delete;
    CallbackScope& operator=(const CallbackScope&) = delete;

    static bool Inside(Side side);

private:
    const Side mSide;
};

// While one lives, its thread is a server transport's receive thread that runs the application's OnData.
class DataCallbackScope {
public:
    // running: becomes false when another thread starts to stop the transport, which joins this thread, and
    // when the channel breaks. Sends fail from then on.
    explicit DataCallbackScope(const std::atomic<bool>& running);
    ~DataCallbackScope();
    DataCallbackScope(const DataCallbackScope&) = delete;
    DataCallbackScope& operator=(const DataCallbackScope&) = delete;

    // Null outside of OnData.
    static const std::atomic<bool>* TransportRunning();
};

}  // namespace lumora
