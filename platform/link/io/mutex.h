// A mutex whose users clang's thread-safety analysis checks; other compilers see a plain one.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

#if defined(__clang__)
#define LINK_THREAD_ATTRIBUTE(x) __attribute__((x))
#else
#define LINK_THREAD_ATTRIBUTE(x)
#endif
#define LINK_CAPABILITY LINK_THREAD_ATTRIBUTE(capability("mutex"))
#define LINK_SCOPED_CAPABILITY LINK_THREAD_ATTRIBUTE(scoped_lockable)
#define LINK_GUARDED_BY(x) LINK_THREAD_ATTRIBUTE(guarded_by(x))
#define LINK_REQUIRES(x) LINK_THREAD_ATTRIBUTE(requires_capability(x))
#define LINK_ACQUIRE(...) LINK_THREAD_ATTRIBUTE(acquire_capability(__VA_ARGS__))
#define LINK_RELEASE(...) LINK_THREAD_ATTRIBUTE(release_capability(__VA_ARGS__))

namespace lumora_link {

class LINK_CAPABILITY Mutex {
public:
    void lock() LINK_ACQUIRE() { mMutex.lock(); }
    void unlock() LINK_RELEASE() { mMutex.unlock(); }

private:
    std::mutex mMutex;
};

class LINK_SCOPED_CAPABILITY MutexLock {
public:
    explicit MutexLock(Mutex& mutex) LINK_ACQUIRE(mutex) : mMutex(mutex) { mMutex.lock(); }
    ~MutexLock() LINK_RELEASE() { mMutex.unlock(); }
    MutexLock(const MutexLock&) = delete;
    MutexLock& operator=(const MutexLock&) = delete;

private:
    Mutex& mMutex;
};

// Waits with a Mutex held; the lock is let go meanwhile and held again afterwards.
class Condition {
public:
    void Wait(Mutex& mutex) LINK_REQUIRES(mutex) { mCondition.wait(mutex); }
    // Returns at the deadline at the latest; max() is no deadline.
    void WaitUntil(Mutex& mutex, std::chrono::steady_clock::time_point deadline) LINK_REQUIRES(mutex) {
        if (deadline == std::chrono::steady_clock::time_point::max()) {
            mCondition.wait(mutex);  // as a timeout, max() overflows in the C library
        } else {
            mCondition.wait_until(mutex, deadline);
        }
    }
    void NotifyAll() { mCondition.notify_all(); }

private:
    std::condition_variable_any mCondition;
};

}  // namespace lumora_link
