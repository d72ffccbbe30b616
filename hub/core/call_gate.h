// Lets a destructor wait for calls in progress.
#pragma once

#include <thread>

#include "base/mutex.h"

namespace lumora_hub {

// One thread calls, others may close. Close waits for a call in progress, unless it runs on this thread.
class CallGate {
public:
    template <typename Call>
    void Run(const Call& call) {
        if (Enter()) {
            call();
            Leave();
        }
    }

    void Close() {
        const lumora::MutexLock lock(mMutex);
        mClosed = true;
        while (mRunning && mCaller != std::this_thread::get_id()) {
            mChanged.Wait(mMutex);
        }
    }

private:
    bool Enter() {
        const lumora::MutexLock lock(mMutex);
        if (mClosed) {
            return false;
        }
        mRunning = true;
        mCaller = std::this_thread::get_id();
        return true;
    }

    void Leave() {
        const lumora::MutexLock lock(mMutex);
        mRunning = false;
        if (mClosed) {
            mChanged.NotifyAll();
        }
    }

    lumora::Mutex mMutex;  // a leaf lock
    lumora::Condition mChanged;
    bool mClosed GUARDED_BY(mMutex) = false;
    bool mRunning GUARDED_BY(mMutex) = false;
    std::thread::id mCaller GUARDED_BY(mMutex);
};

}  // namespace lumora_hub
