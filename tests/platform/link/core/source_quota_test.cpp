#include "platform/link/core/source_quota.h"

#include <gtest/gtest.h>

namespace lumora_link::test {

namespace {

constexpr in_addr_t ONE = 1;
constexpr in_addr_t TWO = 2;
constexpr in_addr_t THREE = 3;

struct SourceQuotaTest : testing::Test {
    void Enter(in_addr_t source, int times) {
        for (int count = 0; count < times; ++count) {
            quota.Enter(source);
        }
    }
    SourceQuota quota{"entries", 10, 6};
};

}  // namespace

TEST_F(SourceQuotaTest, AnAddressWithItsShareMakesRoomItself) {
    Enter(ONE, 6);
    EXPECT_EQ(quota.WhoYields(ONE), ONE);
    EXPECT_EQ(quota.WhoYields(TWO), std::nullopt);
}

TEST_F(SourceQuotaTest, AFullTableTakesFromTheAddressThatHasMost) {
    Enter(ONE, 4);
    Enter(TWO, 5);
    Enter(THREE, 1);
    EXPECT_EQ(quota.WhoYields(THREE), TWO);
    EXPECT_EQ(quota.WhoYields(4), TWO);
    quota.Leave(TWO);
    EXPECT_EQ(quota.WhoYields(4), std::nullopt);
    quota.Enter(ONE);
    EXPECT_EQ(quota.WhoYields(4), ONE);
}

TEST_F(SourceQuotaTest, AmongEqualsTheNewcomersOwnEntryGoes) {
    Enter(ONE, 5);
    Enter(TWO, 5);
    EXPECT_EQ(quota.WhoYields(ONE), ONE);
    EXPECT_EQ(quota.WhoYields(TWO), TWO);
}

TEST_F(SourceQuotaTest, WhatHasLeftIsNotCounted) {
    Enter(ONE, 6);
    for (int count = 0; count < 6; ++count) {
        quota.Leave(ONE);
    }
    quota.Leave(ONE);
    EXPECT_EQ(quota.Entries(), 0U);
    EXPECT_EQ(quota.WhoYields(ONE), std::nullopt);
}

TEST(OldestFirstTest, EachAddressHasItsOwnOrder) {
    OldestFirst<int> order;
    const auto first = order.Add(ONE, 11);
    order.Add(TWO, 21);
    order.Add(ONE, 12);
    EXPECT_EQ(*order.Oldest(ONE), 11);
    order.Remove(ONE, first);
    EXPECT_EQ(*order.Oldest(ONE), 12);
    EXPECT_EQ(*order.Oldest(TWO), 21);
    EXPECT_EQ(order.Oldest(THREE), nullptr);
}

}  // namespace lumora_link::test
