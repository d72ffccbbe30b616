// What waits in a worker while its device is slow.
#include "hub/worker/subscriptions.h"

#include <gtest/gtest.h>

namespace {

using lumora_hub::DropOpposite;
using lumora_hub::Frame;
using lumora_hub::FrameKind;

Frame FrameOf(FrameKind kind, const std::string& name) {
    Frame frame;
    frame.head.kind = kind;
    frame.name = name;
    return frame;
}

void Put(std::deque<Frame>& waiting, FrameKind kind, const std::string& name) {
    const Frame frame = FrameOf(kind, name);
    if (!DropOpposite(waiting, frame)) {
        waiting.push_back(frame);
    }
}

TEST(SubscriptionsTest, ConsumersThatComeAndGoLeaveNothing) {
    std::deque<Frame> waiting;
    for (int count = 0; count < 1000; ++count) {
        Put(waiting, FrameKind::SUBSCRIBE, std::to_string(count));
        Put(waiting, FrameKind::UNSUBSCRIBE, std::to_string(count));
    }
    EXPECT_TRUE(waiting.empty());
    Put(waiting, FrameKind::UNSUBSCRIBE, "a");
    Put(waiting, FrameKind::SUBSCRIBE, "a");
    EXPECT_TRUE(waiting.empty());
}

TEST(SubscriptionsTest, OthersStayInTheirOrder) {
    std::deque<Frame> waiting;
    Put(waiting, FrameKind::COMMAND, "a");
    Put(waiting, FrameKind::SUBSCRIBE, "a");
    Put(waiting, FrameKind::UNSUBSCRIBE, "b");
    Put(waiting, FrameKind::COMMAND, "a");
    ASSERT_EQ(waiting.size(), 4U);
    Put(waiting, FrameKind::UNSUBSCRIBE, "a");
    ASSERT_EQ(waiting.size(), 3U);
    EXPECT_EQ(waiting[0].head.kind, FrameKind::COMMAND);
    EXPECT_EQ(waiting[1].name, "b");
    EXPECT_EQ(waiting[2].head.kind, FrameKind::COMMAND);
}

}  // namespace
