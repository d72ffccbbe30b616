// From the library's threads, which must not be held up, to the one that works.
#pragma once

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <deque>
#include <optional>
#include <system_error>
#include <utility>

#include "base/mutex.h"
#include "base/unique_fd.h"
#include "tools/lumora/os/waiting.h"

namespace lumora_cli {

template <typename Item>
class Inbox {
public:
    Inbox() : mReady(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
        if (!mReady) {
            throw std::system_error(errno, std::generic_category(), "no event descriptor");
        }
    }

    void Put(Item item) {
        {
            const lumora::MutexLock lock(mMutex);
            mItems.push_back(std::move(item));
        }
        const std::uint64_t one = 1;
        [[maybe_unused]] const ssize_t written = write(mReady.Get(), &one, sizeof(one));  // cannot overflow
    }

    // Nothing when none comes in time, or when a signal says that it is enough.
    std::optional<Item> Take(Deadline deadline) {
        while (true) {
            if (std::optional<Item> item = TryTake()) {
                return item;
            }
            if (Wait(mReady.Get(), deadline) != Woken::READY) {
                return TryTake();
            }
            std::uint64_t count = 0;
            [[maybe_unused]] const ssize_t taken = read(mReady.Get(), &count, sizeof(count));
        }
    }

    // Readable once something was put. Take clears it.
    int ReadyFd() const { return mReady.Get(); }

    std::optional<Item> TryTake() {
        const lumora::MutexLock lock(mMutex);
        if (mItems.empty()) {
            return std::nullopt;
        }
        Item item = std::move(mItems.front());
        mItems.pop_front();
        return item;
    }

private:
    lumora::UniqueFd mReady;
    lumora::Mutex mMutex;
    std::deque<Item> mItems GUARDED_BY(mMutex);
};

}  // namespace lumora_cli
