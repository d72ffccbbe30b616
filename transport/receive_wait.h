// Where the receive thread waits for data, and where other threads find it there.
#pragma once

#include <atomic>
#include <chrono>

#include "transport/socket.h"

namespace lumoraAiModule {

// A wait for data that other threads can end, at once or a little later. Waiting is for one thread at a time;
// the other operations are for any.
class ReceiveWait {
public:
    enum class Result { READABLE, NOT_YET, FAILED };

    ReceiveWait();

    // Waits until socket is readable, the wait is ended, or a limit has passed. FAILED leaves errno.
    Result ForData(const Descriptor& socket);

    // Whether a thread waits for data right now, and EndSoon reaches it. Always false without a timer.
    bool IsWaiting() const { return mWaiting && mTimer.IsOpen(); }

    // Ends this wait, or the next one if no thread waits. Has no effect without a timer; a wait then ends by
    // itself after half a second.
    void End() { SetTimer(std::chrono::nanoseconds(1)); }
    // The same after delay, instead of an end that is still to come.
    void EndSoon(std::chrono::microseconds delay) { SetTimer(delay); }

private:
    void SetTimer(std::chrono::nanoseconds delay);

    const Descriptor mTimer;  // readable when the wait is to end; none if the kernel gave none
    std::atomic<bool> mWaiting{false};
};

}  // namespace lumoraAiModule
