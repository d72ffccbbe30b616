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
    // The number is erased from the buffer: a later look at this process's memory must not show used numbers.
    std::uint64_t number = 0;
    std::swap(number, mNumbers[mLeft]);
    return number;
}

void SystemRandom::Refill() {
    ssize_t bytes = 0;
    do {
        bytes = getrandom(mNumbers.data(), sizeof mNumbers, 0);
        // Shortly after boot getrandom waits for entropy, and a signal can interrupt that wait.
    } while (bytes < 0 && errno == EINTR);
    if (bytes != static_cast<ssize_t>(sizeof mNumbers)) {
        // A sandbox may forbid the call. std::random_device reads the processor or /dev/urandom instead.
        std::random_device device;
        for (std::uint64_t& number : mNumbers) {
            number = static_cast<std::uint64_t>(device()) << 32 | device();
        }
    }
    mLeft = mNumbers.size();
}

}  // namespace lumora_link
