// What clients may have at a time.
#include "hub/core/quota.h"

#include <gtest/gtest.h>

#include <vector>

namespace lumora_hub {
namespace {

TEST(QuotaTest, OneAddressDoesNotUseUpWhatAllMayHave) {
    Quota quota(5, 3);
    std::vector<Quota::Share> shares;
    for (int count = 0; count < 3; ++count) {
        shares.push_back(quota.Take("a"));
        EXPECT_TRUE(shares.back());
    }
    EXPECT_FALSE(quota.Take("a"));
    shares.push_back(quota.Take("b", 2));
    EXPECT_TRUE(shares.back());
    EXPECT_FALSE(quota.Take("c"));
    EXPECT_EQ(quota.Taken(), 5U);
    EXPECT_TRUE(quota.HasItsShare("a"));
    EXPECT_FALSE(quota.HasItsShare("b"));
    EXPECT_FALSE(quota.HasRoom("c"));
    shares.pop_back();
    EXPECT_TRUE(quota.HasRoom("c", 2));
    EXPECT_FALSE(quota.HasRoom("a"));
}

TEST(QuotaTest, AShareIsReleasedOnceByItsLastOwner) {
    Quota quota(1, 1);
    Quota::Share first = quota.Take("a");
    Quota::Share second = std::move(first);
    first = Quota::Share();
    EXPECT_FALSE(quota.HasRoom("a"));
    second = Quota::Share();
    EXPECT_TRUE(quota.HasRoom("a"));
    second = quota.Take("a");
    EXPECT_TRUE(second);
}

}  // namespace
}  // namespace lumora_hub
