// std::mutex and its guard under names that clang's thread-safety analysis can follow.
#pragma once

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
    explicit MutexLock(Mutex& mutex) ACQUIRE(mutex) : mMutex(mutex) { mMutex.lock(); }
    ~MutexLock() RELEASE() { mMutex.unlock(); }
    MutexLock(const MutexLock&) = delete;
    MutexLock& operator=(const MutexLock&) = delete;

private:
    Mutex& mMutex;
};

// Releases a mutex for one scope and takes it again, also if an exception ends the scope.
class SCOPED_CAPABILITY MutexUnlock {
public:
    explicit MutexUnlock(Mutex& mutex) RELEASE(mutex) : mMutex(mutex) { mMutex.unlock(); }
    ~MutexUnlock() RELEASE() { mMutex.lock(); }
    MutexUnlock(const MutexUnlock&) = delete;
    MutexUnlock& operator=(const MutexUnlock&) = delete;

private:
    Mutex& mMutex;
};

}  // namespace lumora
