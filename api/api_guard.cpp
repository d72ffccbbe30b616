#include "api/api_guard.h"

#include <chrono>
#include <exception>

namespace lumora {

namespace {

// How long a stop may have to wait for a thread that it joins to notice it.
constexpr std::chrono::milliseconds STOP_CHECK_INTERVAL(2);

}  // namespace

void ApiMutex::Lock() {
    std::unique_lock<std::mutex> lock(mMutex);
    mReleased.wait(lock, [this] { return !mHeld; });
    mHeld = true;
}

bool ApiMutex::LockWhile(const std::atomic<bool>& wanted) {
    std::unique_lock<std::mutex> lock(mMutex);
    while (mHeld) {
        if (!wanted) {
            return false;
        }
        mReleased.wait_for(lock, STOP_CHECK_INTERVAL);
    }
    mHeld = true;
    return true;
}

void ApiMutex::Unlock() {
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        mHeld = false;
    }
    mReleased.notify_one();
}

ApiLock::ApiLock(ApiMutex& mutex, Side side, const char* function, int line, FromOnData fromOnData)
    : mMutex(mutex) {
    if (WouldWaitForItself(side, function, line)) {
        return;
    }
    const std::atomic<bool>* transportRunning =
        side == Side::SERVER ? DataCallbackScope::TransportRunning() : nullptr;
    if (transportRunning == nullptr) {
        mMutex.Lock();
        mHeld = true;
    } else if (fromOnData == FromOnData::REFUSED) {
        LogInfo(LOG_ERROR, "LUMRA", function, line, "called from OnData: it would wait for itself.\n");
    } else if (mMutex.LockWhile(*transportRunning)) {
        mHeld = true;
    } else {
        LogInfo(LOG_ERROR, "LUMRA", function, line,
                "called from OnData while the transport is being stopped.\n");
    }
}

ApiLock::~ApiLock() {
    if (mHeld) {
        mMutex.Unlock();
    }
}

bool WouldWaitForItself(Side side, const char* function, int line) {
    if (!CallbackScope::Inside(side)) {
        return false;
    }
    LogInfo(LOG_ERROR, "LUMRA", function, line,
            "called from a callback of the same side: it would wait for itself.\n");
    return true;
}

int FailedByException(const char* function, int line) {
    try {
        throw;
    } catch (const std::exception& failure) {
        LogInfo(LOG_ERROR, "LUMRA", function, line, "failed: %s\n", failure.what());
    } catch (...) {
        LogInfo(LOG_ERROR, "LUMRA", function, line, "failed by an unknown exception.\n");
    }
    return -1;
}

}  // namespace lumora
