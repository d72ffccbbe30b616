// The pauses between attempts, and the data ports of the workers.
#include <gtest/gtest.h>

#include <chrono>

#include "hub/core/back_off.h"
#include "hub/core/port_range.h"

namespace {

using lumora_hub::BackOff;
using lumora_hub::ParsePorts;
using lumora_hub::PortRange;
using std::chrono::milliseconds;

TEST(BackOffTest, DoublesUpToItsLimitWithASpread) {
    BackOff pauses(milliseconds(200), milliseconds(1000));
    for (const int longest : {200, 400, 800, 1000, 1000}) {
        const milliseconds pause = pauses.Next();
        EXPECT_LE(pause.count(), longest);
        EXPECT_GE(pause.count(), longest * 3 / 4);
    }
}

TEST(BackOffTest, BeginsAnewAfterASuccess) {
    BackOff pauses(milliseconds(200), milliseconds(10000));
    pauses.Next();
    pauses.Next();
    pauses.Reset();
    EXPECT_LE(pauses.Next().count(), 200);
}

TEST(PortRangeTest, GivesEvenPortsUntilAllAreInUse) {
    PortRange ports({6700, 6705});
    EXPECT_EQ(ports.Pairs(), 3U);
    EXPECT_EQ(ports.Take(), 6700);
    EXPECT_EQ(ports.Take(), 6702);
    EXPECT_EQ(ports.Take(), 6704);
    EXPECT_EQ(ports.Take(), std::nullopt);
}

TEST(PortRangeTest, GivesAReleasedPairAgainAsTheLast) {
    PortRange ports({6700, 6705});
    ports.Take();
    ports.Release(6700);
    EXPECT_EQ(ports.Take(), 6702);
    EXPECT_EQ(ports.Take(), 6704);
    EXPECT_EQ(ports.Take(), 6700);
}

TEST(PortRangeTest, LeavesOutHalfPairs) {
    PortRange ports({6701, 6704});
    EXPECT_EQ(ports.Pairs(), 1U);
    EXPECT_EQ(ports.Take(), 6702);
    EXPECT_EQ(ports.Take(), std::nullopt);
}

TEST(PortRangeTest, ReadsARange) {
    const auto limits = ParsePorts("6700-6899");
    ASSERT_TRUE(limits);
    EXPECT_EQ(limits->first, 6700);
    EXPECT_EQ(limits->last, 6899);
    for (const char* text : {"", "6700", "6700-", "-6899", "6700-6899x", "6899-6700", "1000-1100",
                             "65000-65536", "6701-6702", "99999999999-1"}) {
        EXPECT_FALSE(ParsePorts(text)) << text;
    }
}

}  // namespace
