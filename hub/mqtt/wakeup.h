// Wakes a thread that polls.
#pragma once

#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <system_error>

#include "base/unique_fd.h"

namespace lumora_hub {

class Wakeup {
public:
    Wakeup() : mEvent(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
        if (!mEvent) {
            throw std::system_error(errno, std::generic_category(), "eventfd");
        }
    }

    int Get() const { return mEvent.Get(); }

    // Any thread may call it. Fails only if the count is full, and then the thread is woken anyway.
    void Set() {
        const std::uint64_t one = 1;
        [[maybe_unused]] const ssize_t written = write(mEvent.Get(), &one, sizeof(one));
    }

    // To be called before the thread looks at what there is to do: a Set in between wakes it once more.
    void Clear() {
        std::uint64_t count = 0;
        [[maybe_unused]] const ssize_t length = read(mEvent.Get(), &count, sizeof(count));
    }

private:
    lumora::UniqueFd mEvent;
};

}  // namespace lumora_hub
