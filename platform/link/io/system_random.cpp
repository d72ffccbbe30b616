#include "platform/link/io/system_random.h"

#include <sys/random.h>

#include <cerrno>
#include <random>
#include <utility>

namespace lumora_link {

std::uint64_t SystemRandom::Next() {
    if (mLeft == 0) {
        Refill();
    }
    --mLeft;
    // Not kept: what has been used is of use to those only who read this process's memory.
    std::uint64_t number = 0;
    std::swap(number, mNumbers[mLeft]);
    return number;
}

void SystemRandom::Refill() {
    ssize_t bytes = 0;
    do {
        bytes = getrandom(mNumbers.data(), sizeof mNumbers, 0);
        // Early after boot the wait for entropy can be interrupted.
    } while (bytes < 0 && errno == EINTR);
    if (bytes != static_cast<ssize_t>(sizeof mNumbers)) {
        // A sandbox that forbids the call. The library's device reads the processor or /dev/urandom.
        std::random_device device;
        for (std::uint64_t& number : mNumbers) {
            number = static_cast<std::uint64_t>(device()) << 32 | device();
        }
    }
    mLeft = mNumbers.size();
}

}  // namespace lumora_link
