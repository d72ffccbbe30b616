// std::mutex, its guard and a condition, with annotations that clang's thread-safety analysis checks.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

#include "base/thread_annotations.h"

namespace lumora {

class CAPABILITY("mutex") Mutex {
public:
    void lock() ACQUIRE() { mMutex.lock(); }
    void unlock() RELEASE() { mMutex.unlock(); }

    // Lets tests check whether the mutex is held; the analysis cannot express that.
    std::mutex& Native() { return mMutex; }

private:
    std::mutex mMutex;
};

class SCOPED_CAPABILITY MutexLock {
public:
    // noexcept, so that callers have no code for a failure: a mutex of this kind cannot fail to be locked.
    explicit MutexLock(Mutex& mutex) noexcept ACQUIRE(mutex) : mMutex(mutex) { mMutex.lock(); }
    ~MutexLock() RELEASE() { mMutex.unlock(); }
    MutexLock(const MutexLock&) = delete;
    MutexLock& operator=(const MutexLock&) = delete;

private:
    Mutex& mMutex;
};

// Releases a mutex for one scope and acquires it again, also if an exception ends the scope.
class SCOPED_CAPABILITY MutexUnlock {
public:
    explicit MutexUnlock(Mutex& mutex) RELEASE(mutex) : mMutex(mutex) { mMutex.unlock(); }
    ~MutexUnlock() RELEASE() { mMutex.lock(); }
    MutexUnlock(const MutexUnlock&) = delete;
    MutexUnlock& operator=(const MutexUnlock&) = delete;

private:
    Mutex& mMutex;
};

// Waits with a Mutex held: waiting releases the mutex, and returning acquires it again.
class Condition {
public:
    void Wait(Mutex& mutex) REQUIRES(mutex) {
        WaitUntil(mutex, std::chrono::steady_clock::time_point::max());
    }
    // Returns at the deadline at the latest; time_point::max() means no deadline.
    void WaitUntil(Mutex& mutex, std::chrono::steady_clock::time_point deadline) REQUIRES(mutex) {
        std::unique_lock<std::mutex> lock(mutex.Native(), std::adopt_lock);
        if (deadline == std::chrono::steady_clock::time_point::max()) {
            mCondition.wait(lock);  // as a timeout, max() overflows in the C library
        } else {
            mCondition.wait_until(lock, deadline);
        }
        lock.release();  // the caller goes on holding the mutex
    }
    void NotifyAll() { mCondition.notify_all(); }

private:
    std::condition_variable mCondition;
};

}  // namespace lumora
