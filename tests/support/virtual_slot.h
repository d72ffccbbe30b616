// The places of virtual operations in the tables of their classes, which others may have been compiled
// against.
#pragma once

#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>

namespace lumora_test {

// Counts from 0; the two forms of a virtual destructor take a place each. Reads the representation of
// pointers to members that gcc and clang agree upon: ARM keeps the mark of a virtual operation in the second
// word.
template <typename Operation>
std::size_t SlotOf(Operation operation) {
    std::ptrdiff_t words[2] = {};
    static_assert(sizeof(operation) == sizeof(words), "another representation");
    std::memcpy(words, &operation, sizeof(words));
#if defined(__arm__) || defined(__aarch64__)
    const bool isVirtual = (words[1] & 1) != 0;
    const std::ptrdiff_t offset = words[0];
#else
    const bool isVirtual = (words[0] & 1) != 0;
    const std::ptrdiff_t offset = words[0] - 1;
#endif
    return isVirtual ? static_cast<std::size_t>(offset) / sizeof(void*) : static_cast<std::size_t>(-1);
}

// The operations follow each other, right behind the destructor.
template <typename... Operations>
void ExpectSlotOrder(Operations... operations) {
    std::size_t slot = 2;
    for (const std::size_t seen : {SlotOf(operations)...}) {
        EXPECT_EQ(slot++, seen);
    }
}

}  // namespace lumora_test
