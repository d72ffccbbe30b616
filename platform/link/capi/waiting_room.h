// Application threads wait here for results of the I/O thread.
#pragma once

#include <cstdint>
#include <map>
#include <optional>

#include "base/mutex.h"

namespace lumora_link {

template <typename Result>
class WaitingRoom {
public:
    // Reserves a ticket for a result. Nothing once the room is closed.
    std::optional<std::uint64_t> Enter() {
        lumora::MutexLock lock(mMutex);
        if (mClosed) {
            return std::nullopt;
        }
        mResults[++mLastTicket];
        return mLastTicket;
    }

    // Wakes the thread that waits with this ticket. Ignored if that thread has gone.
    void Tell(std::uint64_t ticket, Result result) {
        lumora::MutexLock lock(mMutex);
        const auto at = mResults.find(ticket);
        if (at != mResults.end()) {
            at->second = std::move(result);
            mTold.NotifyAll();
        }
    }

    // Blocks until Tell or Close, and gives the ticket back. An empty result if Close came first.
    Result Wait(std::uint64_t ticket) {
        lumora::MutexLock lock(mMutex);
        while (!mClosed && !mResults[ticket]) {
            mTold.Wait(mMutex);
        }
        Result result = mResults[ticket].value_or(Result());
        mResults.erase(ticket);
        return result;
    }

    // Wakes every waiting thread; no ticket is given out afterwards.
    void Close() {
        lumora::MutexLock lock(mMutex);
        mClosed = true;
        mTold.NotifyAll();
    }

private:
    lumora::Mutex mMutex;
    lumora::Condition mTold;
    std::map<std::uint64_t, std::optional<Result>> mResults GUARDED_BY(mMutex);
    std::uint64_t mLastTicket GUARDED_BY(mMutex) = 0;
    bool mClosed GUARDED_BY(mMutex) = false;
};

}  // namespace lumora_link
