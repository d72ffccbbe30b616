#include "platform/link/io/system_random.h"

#include <gtest/gtest.h>

#include <set>

namespace lumora_link::test {

TEST(SystemRandomTest, NumbersDifferWithinASourceAndBetweenSources) {
    std::set<std::uint64_t> seen;
    SystemRandom sources[2];
    for (int count = 0; count < 1000; ++count) {
        for (SystemRandom& source : sources) {
            EXPECT_TRUE(seen.insert(source.Next()).second);
        }
    }
    EXPECT_EQ(seen.count(0), 0U);
}

TEST(SystemRandomTest, EveryBitIsUsed) {
    SystemRandom source;
    std::uint64_t everSet = 0;
    std::uint64_t everClear = 0;
    for (int count = 0; count < 200; ++count) {
        const std::uint64_t number = source.Next();
        everSet |= number;
        everClear |= ~number;
    }
    EXPECT_EQ(everSet, ~std::uint64_t{0});
    EXPECT_EQ(everClear, ~std::uint64_t{0});
}

}  // namespace lumora_link::test
