// Where application threads wait for what the I/O thread will tell them.
#pragma once

#include <cstdint>
#include <map>
#include <optional>

#include "mutex.h"

namespace lumora_link {

template <typename Result>
class WaitingRoom {
public:
    // Nothing once the room is closed.
    std::optional<std::uint64_t> Enter() {
        MutexLock lock(mutex_);
        if (closed_) {
            return std::nullopt;
        }
        results_[++lastTicket_];
        return lastTicket_;
    }

    void Tell(std::uint64_t ticket, Result result) {
        MutexLock lock(mutex_);
        const auto at = results_.find(ticket);
        if (at != results_.end()) {
            at->second = std::move(result);
            told_.NotifyAll();
        }
    }

    // An empty result where the room was closed first.
    Result Wait(std::uint64_t ticket) {
        MutexLock lock(mutex_);
        while (!closed_ && !results_[ticket]) {
            told_.Wait(mutex_);
        }
        Result result = results_[ticket].value_or(Result());
        results_.erase(ticket);
        return result;
    }

    void Close() {
        MutexLock lock(mutex_);
        closed_ = true;
        told_.NotifyAll();
    }

private:
    Mutex mutex_;
    Condition told_;
    std::map<std::uint64_t, std::optional<Result>> results_ LINK_GUARDED_BY(mutex_);
    std::uint64_t lastTicket_ LINK_GUARDED_BY(mutex_) = 0;
    bool closed_ LINK_GUARDED_BY(mutex_) = false;
};

}  // namespace lumora_link
