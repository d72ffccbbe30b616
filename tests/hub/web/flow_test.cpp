// Messages in pieces, and the forms of blocks in streams.
#include "hub/web/flow.h"

#include <gtest/gtest.h>

#include <array>

#include "hub/web/block_flow.h"
#include "tests/hub/support/scripted_hub.h"

namespace lumora_hub::web {
namespace {

using lumora_hub_test::MakeDevice;
using lumora_hub_test::ScriptedHub;

BlockPointer BlockOf(std::string bytes) {
    auto block = std::make_shared<Block>();
    block->number = 0x0102;
    block->received = std::chrono::system_clock::time_point(std::chrono::microseconds(0x030405));
    block->bytes = std::move(bytes);
    return block;
}

TEST(MessageTest, IsReadInPiecesAcrossTextAndBlock) {
    for (std::size_t size = 1; size <= 10; ++size) {
        Message message("head", BlockOf("bytes"));
        std::string all;
        std::array<char, 16> room{};
        bool isFirst = true;
        while (!message.IsRead()) {
            const Piece piece = message.Read(room.data(), size);
            EXPECT_EQ(isFirst, piece.isFirst);
            EXPECT_LE(piece.size, size);
            ASSERT_GT(piece.size, 0U);
            all.append(room.data(), piece.size);
            EXPECT_EQ(all.size() == 9, piece.isLast);
            isFirst = false;
        }
        EXPECT_EQ("headbytes", all) << size;
    }
}

TEST(MessageTest, AnEmptyOneIsReadFromTheBeginning) {
    Message message;
    EXPECT_TRUE(message.IsRead());
    EXPECT_TRUE(message.Read(nullptr, 0).isLast);
}

TEST(BlockHeadTest, HasVersionLossesNumberAndTimeInNetworkOrder) {
    const std::string head = BlockHead(*BlockOf("x"), 7);
    EXPECT_EQ(std::string("\1\0\0\0\0\0\0\7\0\0\0\0\0\0\1\2\0\0\0\0\0\3\4\5", 24), head);
    EXPECT_EQ("\xFF\xFF\xFF\xFF", BlockHead(*BlockOf("x"), std::uint64_t{1} << 40).substr(4, 4));
}

TEST(BlockEventTest, TextsGoInLinesAndOthersInBase64) {
    EXPECT_EQ("event: text\nid: 258\ndata: a\ndata: b\ndata: \n\n", BlockEvent(*BlockOf("a\nb\n")));
    EXPECT_EQ("event: base64\nid: 258\ndata: YQ1i\n\n", BlockEvent(*BlockOf("a\rb")));
    EXPECT_EQ("event: base64\nid: 258\ndata: /wA=\n\n", BlockEvent(*BlockOf(std::string("\xFF\0", 2))));
    EXPECT_EQ("event: base64\nid: 258\ndata: AQ==\n\n", BlockEvent(*BlockOf("\1")));
}

TEST(BlockFlowTest, ABlockThatIsBeingSentIsNotDropped) {
    ScriptedHub hub;
    hub.Appear(MakeDevice("a", "1", {"s"}));
    WebCounts counts;
    BlockEvents events;
    auto consumer = std::make_shared<Consumer>("web", QueueLimits{1}, nullptr);
    std::array<char, 64> room{};
    {
        BlockFlow flow(consumer, hub.Subscribe("a@1", "s", consumer), Framing::WEB_SOCKET, events, counts);
        EXPECT_EQ(0U, flow.Fill(room.data(), room.size()).size);
        hub.Send("a@1", "s", "first");
        EXPECT_FALSE(flow.Fill(room.data(), 25).isLast);
        for (const char* const text : {"second", "third", "last"}) {
            hub.Send("a@1", "s", text);
        }
        const Piece rest = flow.Fill(room.data(), room.size());
        EXPECT_EQ("irst", std::string(room.data(), rest.size));
        EXPECT_TRUE(rest.isLast);
        const Piece last = flow.Fill(room.data(), room.size());
        EXPECT_EQ("last", std::string(room.data() + 24, last.size - 24));
        EXPECT_EQ(2, room[7]);  // blocks were lost
        EXPECT_EQ(1U, counts.streams);
    }
    EXPECT_EQ(0U, counts.streams);
    EXPECT_EQ(2U, counts.blocks);
    EXPECT_EQ(2U, counts.lostOfEnded);
    EXPECT_TRUE(hub.Consumers().empty());
}

TEST(BlockFlowTest, EventsBeginWithTheTimeToConnectAgain) {
    ScriptedHub hub;
    hub.Appear(MakeDevice("a", "1", {"s"}));
    WebCounts counts;
    BlockEvents events;
    auto consumer = std::make_shared<Consumer>("web", QueueLimits{}, nullptr);
    std::array<char, 64> room{};
    BlockFlow flow(consumer, hub.Subscribe("a@1", "s", consumer), Framing::SERVER_SENT_EVENTS, events,
                   counts);
    EXPECT_EQ("retry: 500\n\n", std::string(room.data(), flow.Fill(room.data(), room.size()).size));
    EXPECT_EQ(0U, flow.Fill(room.data(), room.size()).size);
    hub.Send("a@1", "s", "x");
    EXPECT_EQ("event: text\nid: 1\ndata: x\n\n",
              std::string(room.data(), flow.Fill(room.data(), room.size()).size));
    EXPECT_EQ(1U, counts.blocks);
}

TEST(BlockEventsTest, AnEventIsMadeOnceForAllStreams) {
    BlockEvents events;
    const BlockPointer block = BlockOf("x");
    const SharedText text = events.Of(block);
    EXPECT_EQ(BlockEvent(*block), *text);
    EXPECT_EQ(text, events.Of(block));
}

TEST(BlockEventsTest, AnEventThatIsBeingSentIsSharedWhileManyOthersPass) {
    BlockEvents events;
    const BlockPointer block = BlockOf("x");
    const SharedText text = events.Of(block);
    std::weak_ptr<const std::string> passed;
    for (int i = 0; i < 10; ++i) {
        passed = events.Of(BlockOf(std::string(1 << 20, 'y')));
    }
    EXPECT_EQ(text, events.Of(block));
    events.Of(BlockOf(std::string(3 << 20, 'y')));
    EXPECT_TRUE(passed.expired()) << "kept without a stream that sends it";
}

}  // namespace
}  // namespace lumora_hub::web
