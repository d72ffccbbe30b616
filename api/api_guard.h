// What every exported function does around its work: check, take its side's mutex, and let nothing throw.
#pragma once

#include <atomic>
#include <condition_variable>
#include <mutex>

#include "base/callback_scope.h"
#include "base/log.h"

// The checks of an exported function read as a table: what must hold, and what is logged when it does not.
#define LUMORA_REQUIRE(condition, ...) \
    do {                               \
        if (!(condition)) {            \
            LUMORA_ERROR(__VA_ARGS__); \
            return -1;                 \
        }                              \
    } while (false)

namespace lumora {

// Serialises the exported functions of one side. Unlike a plain mutex it can be waited for by a thread that
// somebody else may begin to wait for meanwhile.
class ApiMutex {
public:
    void Lock();
    // Gives up, and returns false, once wanted has turned false.
    bool LockWhile(const std::atomic<bool>& wanted);
    void Unlock();
    bool IsFree() const { return mState == FREE; }

private:
    // Somebody waits as long as it is CONTENDED; whoever gets it after waiting leaves it so, because others
    // may wait too.
    enum State { FREE, HELD, CONTENDED };

    bool TryLock();

    std::atomic<int> mState{FREE};
    std::mutex mMutex;  // of those who wait; a leaf lock
    std::condition_variable mReleased;
};

// Whether a function may be called from the OnData callback.
enum class FromOnData { REFUSED, ALLOWED };

// Holds a side's API mutex for the rest of the calling function, or does not where waiting for it would mean
// to wait for oneself; that is logged in the name of function.
class ApiLock {
public:
    ApiLock(ApiMutex& mutex, Side side, const char* function, int line,
            FromOnData fromOnData = FromOnData::REFUSED);
    ~ApiLock();
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
bool WouldWaitForItself(Side side, const char* function, int line);

// The result of an exported function that something was thrown out of. Call it while that is being handled.
int FailedByException(const char* function, int line);

}  // namespace lumora
