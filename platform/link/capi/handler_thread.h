// The thread that calls the handlers of a node, one request after the other.
#pragma once

#include <functional>
#include <thread>

#include "base/mutex.h"
#include "platform/link/core/call_queue.h"

namespace lumora_link {

class HandlerThread {
public:
    struct Listener {
        std::function<Outcome(const HandlerCall&)> run;
        // Called on this thread; for a dropped call, on the thread that calls Push. No lock is held.
        std::function<void(std::uint64_t ticket, Outcome)> onHandled;
    };

    explicit HandlerThread(Listener listener);
    ~HandlerThread();
    HandlerThread(const HandlerThread&) = delete;
    HandlerThread& operator=(const HandlerThread&) = delete;

    // False if the call is refused or the thread has been stopped.
    bool Push(HandlerCall call);
    // Waits for the running handler, drops the waiting calls, and joins. Must not be called by a handler.
    void Stop();
    bool IsCurrentThread() const { return std::this_thread::get_id() == mId; }

private:
    void Run();
    std::optional<HandlerCall> WaitForCall();
    void RunOne(const HandlerCall& call);
    void Drop(CallQueue::Dropped ticket);

    const Listener mListener;
    lumora::Mutex mMutex;
    lumora::Condition mChanged;
    CallQueue mQueue GUARDED_BY(mMutex);
    bool mStopping GUARDED_BY(mMutex) = false;
    std::thread mThread;
    std::thread::id mId;  // a copy, because other threads may read it while Stop joins
};

}  // namespace lumora_link
