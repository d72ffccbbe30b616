// The latest block of a service, kept for those who ask.
#include "hub/web/latest_blocks.h"

#include <gtest/gtest.h>

#include <set>

#include "tests/hub/support/scripted_hub.h"

namespace lumora_hub::web {
namespace {

class LatestBlocksTest : public testing::Test {
protected:
    LatestBlocksTest() { mHub.Appear(lumora_hub_test::MakeDevice("a", "1", {"s", "t"})); }

    lumora_hub_test::ScriptedHub mHub;
    std::set<std::uint64_t> mReady;
    LatestBlocks mLatest{mHub, 3, 2,
                         [this](std::uint64_t number) { return [this, number] { mReady.insert(number); }; }};
};

TEST_F(LatestBlocksTest, OneSubscriptionServesAllWhoAsk) {
    BlockPointer block;
    EXPECT_TRUE(mLatest.Ask("a@1", "s", {1, "10.0.0.1"}, block));
    EXPECT_TRUE(mLatest.Ask("a@1", "s", {2, "10.0.0.1"}, block));
    EXPECT_EQ(nullptr, block);
    EXPECT_EQ(1U, mHub.Consumers().size());
    mHub.Send("a@1", "s", "old");
    mHub.Send("a@1", "s", "new");
    EXPECT_EQ(std::set<std::uint64_t>{1}, mReady);
    EXPECT_EQ(std::make_pair(std::string("a@1"), std::string("s")), mLatest.Take(1, block));
    EXPECT_EQ("new", block->bytes);
    EXPECT_TRUE(mLatest.Ask("a@1", "s", {3, "10.0.0.1"}, block));
    EXPECT_EQ("new", block->bytes);
}

TEST_F(LatestBlocksTest, ConsumersOfOthersAreNotTaken) {
    BlockPointer block;
    EXPECT_EQ("", mLatest.Take(9, block).first);
    EXPECT_EQ(nullptr, block);
}

TEST_F(LatestBlocksTest, ServicesAreLimited) {
    BlockPointer block;
    EXPECT_TRUE(mLatest.Ask("a@1", "s", {1, "10.0.0.1"}, block));
    EXPECT_TRUE(mLatest.Ask("a@1", "t", {2, "10.0.0.1"}, block));
    EXPECT_FALSE(mLatest.Ask("a@1", "u", {3, "10.0.0.1"}, block));
    EXPECT_TRUE(mLatest.Ask("a@1", "u", {3, "10.0.0.2"}, block));
    EXPECT_FALSE(mLatest.Ask("a@1", "v", {4, "10.0.0.2"}, block));
    mLatest.DropOld();  // all of them were asked for just now
    EXPECT_EQ(3U, mHub.Consumers().size());
}

TEST_F(LatestBlocksTest, AFullHubIsTold) {
    mHub.PermitConsumers(0);
    BlockPointer block;
    EXPECT_FALSE(mLatest.Ask("a@1", "s", {1, "10.0.0.1"}, block));
}

}  // namespace
}  // namespace lumora_hub::web
