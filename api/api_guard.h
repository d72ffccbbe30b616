// Shared by all exported functions: checks, the side's mutex, and exceptions that must not leave the library.
#pragma once

#include <atomic>
#include <condition_variable>
#include <mutex>

#include "base/thread_annotations.h"
#include "library/callback_scope.h"
#include "library/log.h"

// The checks of an exported function read as a table: what must hold, and what is logged if it does not.
#define LUMORA_REQUIRE(condition, ...) \
    do {                               \
        if (!(condition)) {            \
            LUMORA_ERROR(__VA_ARGS__); \
            return -1;                 \
        }                              \
    } while (false)

namespace lumora {

// Serialises the exported functions of one side. Unlike std::mutex, waiting can be abandoned: OnData must
// stop waiting when another thread starts to join its receive thread. std::timed_mutex could do that, too,
// but ThreadSanitizer does not see it being locked.
class CAPABILITY("mutex") ApiMutex {
public:
    void Lock() ACQUIRE();
    // Gives up, and returns false, once wanted has turned false.
    bool LockWhile(const std::atomic<bool>& wanted) TRY_ACQUIRE(true);
    void Unlock() RELEASE();
    bool IsFree() const { return mState == FREE; }

private:
    // A thread that waited acquires the lock as CONTENDED, because there may be more waiters.
    enum State { FREE, HELD, CONTENDED };

    bool TryLock();

    std::atomic<int> mState{FREE};
    std::mutex mMutex;  // a waiter holds it from checking the state until it sleeps; a leaf lock
    std::condition_variable mReleased;
};

// Whether a function may be called from the OnData callback.
enum class FromOnData { REFUSED, ALLOWED };

// Holds a side's API mutex for the rest of the calling function. Fails, and logs on behalf of `function`, if
// waiting would deadlock. The analysis cannot express a lock that may not be held, so it leaves this class
// out.
class ApiLock {
public:
    ApiLock(ApiMutex& mutex, Side side, const char* function, int line,
            FromOnData fromOnData = FromOnData::REFUSED) NO_THREAD_SAFETY_ANALYSIS;
    ~ApiLock() NO_THREAD_SAFETY_ANALYSIS;
    ApiLock(const ApiLock&) = delete;
    ApiLock& operator=(const ApiLock&) = delete;

    bool IsHeld() const { return mHeld; }

private:
    ApiMutex& mMutex;
    bool mHeld = false;
};

// Makes every later call of the process fail: a side calls it in a forked child whose parent was using that
// side. The threads that keep connections and requests going exist in the parent alone, and what they had
// locked stays locked.
void RefuseAllCalls();

// Whether RefuseAllCalls was called; logged.
bool IsForkedChild(const char* function, int line);

// Whether the calling thread is inside a callback of this side that must not call back; logged.
bool RejectReentrantCall(Side side, const char* function, int line);

// The result of an exported function that something was thrown out of. Call it while that is being handled.
int FailedByException(const char* function, int line) noexcept;

}  // namespace lumora
