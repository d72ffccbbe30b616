// Random numbers from the kernel, for ids, tokens and secrets. A stranger sees many of them, so none may
// follow from others as the numbers of a generator of the C++ library do.
#pragma once

#include <array>

#include "platform/link/core/ports.h"

namespace lumora_link {

class SystemRandom : public RandomSource {
public:
    std::uint64_t Next() override;

private:
    void Refill();

    // One call of the kernel for this many numbers. It returns up to 256 bytes whole, whatever signals come.
    std::array<std::uint64_t, 32> mNumbers{};
    std::size_t mLeft = 0;
};

}  // namespace lumora_link
