// Where application threads wait for what the I/O thread will tell them.
#pragma once

#include <cstdint>
#include <map>
#include <optional>

#include "platform/link/io/mutex.h"

namespace lumora_link {

template <typename Result>
class WaitingRoom {
public:
    // Nothing once the room is closed.
    std::optional<std::uint64_t> Enter() {
        MutexLock lock(mMutex);
        if (mClosed) {
            return std::nullopt;
        }
        mResults[++mLastTicket];
        return mLastTicket;
    }

    void Tell(std::uint64_t ticket, Result result) {
        MutexLock lock(mMutex);
        const auto at = mResults.find(ticket);
        if (at != mResults.end()) {
            at->second = std::move(result);
            mTold.NotifyAll();
        }
    }

    // An empty result where the room was closed first.
    Result Wait(std::uint64_t ticket) {
        MutexLock lock(mMutex);
        while (!mClosed && !mResults[ticket]) {
            mTold.Wait(mMutex);
        }
        Result result = mResults[ticket].value_or(Result());
        mResults.erase(ticket);
        return result;
    }

    void Close() {
        MutexLock lock(mMutex);
        mClosed = true;
        mTold.NotifyAll();
    }

private:
    Mutex mMutex;
    Condition mTold;
    std::map<std::uint64_t, std::optional<Result>> mResults LINK_GUARDED_BY(mMutex);
    std::uint64_t mLastTicket LINK_GUARDED_BY(mMutex) = 0;
    bool mClosed LINK_GUARDED_BY(mMutex) = false;
};

}  // namespace lumora_link
