#include "api/api_guard.h"

#include <chrono>
#include <exception>

namespace lumora {

namespace {

// Upper bound on how late a waiting OnData notices that its transport is being stopped. The flag that it
// looks at has no condition to wait for.
constexpr std::chrono::milliseconds STOP_CHECK_INTERVAL(2);

std::atomic<bool> g_allCallsRefused{false};

}  // namespace

bool ApiMutex::TryLock() {
    int expected = FREE;
    return mState.compare_exchange_strong(expected, HELD, std::memory_order_acquire);
}

// A thread that did not wait may overtake those that do. A call of an application's may thus come before one
// that began earlier; applications that need an order have to make it.
void ApiMutex::Lock() {
    if (TryLock()) {
        return;
    }
    std::unique_lock<std::mutex> lock(mMutex);
    mReleased.wait(lock, [this] { return mState.exchange(CONTENDED, std::memory_order_acquire) == FREE; });
}

// Without the second condition two threads would wait for each other:
//   application thread   holds the mutex in LUM_DeInitServer and joins the receive thread
//   receive thread       waits for the mutex in LUM_SendDataToClient, called from OnData
// The attempt comes before the look at the flag. A waiter that was notified must not give up the mutex that
// it could have had, or the notification is lost for the others. Giving up leaves CONTENDED; the next Unlock
// then notifies once too often.
bool ApiMutex::LockWhile(const std::atomic<bool>& wanted) {
    if (TryLock()) {
        return true;
    }
    std::unique_lock<std::mutex> lock(mMutex);
    while (mState.exchange(CONTENDED, std::memory_order_acquire) != FREE) {
        if (!wanted) {
            return false;
        }
        mReleased.wait_for(lock, STOP_CHECK_INTERVAL);
    }
    return true;
}

// A waiter holds mMutex from checking the state until it sleeps. Locking it here makes sure that a waiter
// that has seen the mutex held does sleep, and hears the notification.
void ApiMutex::Unlock() {
    if (mState.exchange(FREE, std::memory_order_release) == HELD) {
        return;
    }
    // A waiter holds mMutex from checking the state until it sleeps, so locking it here cannot miss a waiter.
    { const std::lock_guard<std::mutex> lock(mMutex); }
    mReleased.notify_one();
}

// A receive thread that runs OnData may be joined by a thread that holds the mutex, so it must never wait
// without a way out. Only the server's transports run OnData: in a process with both sides, calls of the
// client side may wait.
ApiLock::ApiLock(ApiMutex& mutex, Side side, const char* function, int line, FromOnData fromOnData)
    : mMutex(mutex) {
    if (IsForkedChild(function, line) || RejectReentrantCall(side, function, line)) {
        return;
    }
    const std::atomic<bool>* transportRunning =
        side == Side::SERVER ? DataCallbackScope::TransportRunning() : nullptr;
    if (transportRunning == nullptr) {
        mMutex.Lock();
        mHeld = true;
    } else if (fromOnData == FromOnData::REFUSED) {
        LUMORA_LOG_AT(LOG_ERROR, function, line, "called from OnData: it would wait for itself.\n");
    } else if (mMutex.LockWhile(*transportRunning)) {
        mHeld = true;
    } else {
        LUMORA_LOG_AT(LOG_ERROR, function, line,
                      "called from OnData while the transport is being stopped.\n");
    }
}

ApiLock::~ApiLock() {
    if (mHeld) {
        mMutex.Unlock();
    }
}

void RefuseAllCalls() { g_allCallsRefused.store(true, std::memory_order_relaxed); }

bool IsForkedChild(const char* function, int line) {
    if (!g_allCallsRefused.load(std::memory_order_relaxed)) {
        return false;
    }
    LUMORA_LOG_AT(LOG_ERROR, function, line,
                  "called in a forked child of a process that uses Lumora; only exec may follow.\n");
    return true;
}

bool RejectReentrantCall(Side side, const char* function, int line) {
    if (!CallbackScope::Inside(side)) {
        return false;
    }
    LUMORA_LOG_AT(LOG_ERROR, function, line,
                  "called from a callback of the same side: it would wait for itself.\n");
    return true;
}

// Exceptions must not reach C code: unwinding through frames without tables ends the process.
int FailedByException(const char* function, int line) noexcept {
    try {
        throw;
    } catch (const std::exception& failure) {
        LUMORA_LOG_AT(LOG_ERROR, function, line, "failed: %s\n", failure.what());
    } catch (...) {
        LUMORA_LOG_AT(LOG_ERROR, function, line, "failed by an unknown exception.\n");
    }
    return -1;
}

}  // namespace lumora
