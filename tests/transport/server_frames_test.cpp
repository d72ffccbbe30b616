// Cutting a stream of client frames, over bytes alone.
#include <gmock/gmock.h>

#include <memory>

#include "tests/support/captured_log.h"
#include "tests/support/fake_securec.h"
#include "tests/support/system_faults.h"
#include "tests/transport/open_transport.h"

namespace lumoraAiModule {
namespace {

using lumora_test::Bytes;
using lumora_test::CapturedLog;
using lumora_test::ClientFrame;
using lumora_test::LittleEndian32;
using lumora_test::OpenServer;
using lumora_test::ReceivedBytes;
using lumora_test::RecordingObserver;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr size_t BUFFER_SIZE = 6291462;

class ParseClientFrameHeadTest : public testing::Test {
protected:
    void Parse(const Bytes& head) {
        LumoraTCPTransServer::ParseDataHead(head.data(), static_cast<unsigned int>(head.size()), &mClientID,
                                            &mPayloadLen);
    }

    CapturedLog mLog;
    int mClientID = 77;
    unsigned int mPayloadLen = 88;
};

TEST_F(ParseClientFrameHeadTest, GivesClientAndPayloadLength) {
    Parse(Bytes("\x06\x10\0\0\0\xff", 6));
    EXPECT_EQ(255, mClientID);
    EXPECT_EQ(16U, mPayloadLen);
    EXPECT_THAT(mLog.Lines(), IsEmpty());
}

TEST_F(ParseClientFrameHeadTest, HeadLengthsFrom0To6AreAccepted) {
    for (char headLen = 0; headLen <= 6; ++headLen) {
        Parse(headLen + LittleEndian32(9) + "\x05");
        EXPECT_EQ(5, mClientID);
        EXPECT_EQ(9U, mPayloadLen);
    }
    EXPECT_THAT(mLog.Lines(), IsEmpty());
}

TEST_F(ParseClientFrameHeadTest, HeadLengthOf7IsAnErrorThatLeavesNothing) {
    Parse("\x07" + LittleEndian32(9) + "\x05");
    EXPECT_EQ(0, mClientID);
    EXPECT_EQ(0U, mPayloadLen);
    EXPECT_THAT(mLog.Texts(4), ElementsAre("headLen error: 7\n"));
    Parse("\xff" + LittleEndian32(9) + "\x05");
    EXPECT_TRUE(mLog.Has(4, "headLen error: 255\n")) << mLog.Dump();
}

TEST_F(ParseClientFrameHeadTest, PayloadOf5242886BytesIsTheLongest) {
    Parse("\x06" + LittleEndian32(5242886) + "\x05");
    EXPECT_EQ(5, mClientID);
    EXPECT_EQ(5242886U, mPayloadLen);
    EXPECT_THAT(mLog.Lines(), IsEmpty());
    Parse("\x06" + LittleEndian32(5242887) + "\x05");
    EXPECT_EQ(0, mClientID);
    EXPECT_EQ(0U, mPayloadLen);
    EXPECT_THAT(mLog.Texts(4), ElementsAre("payloadLen error: 5242887\n"));
}

TEST_F(ParseClientFrameHeadTest, WrongHeadLengthIsReportedBeforeALongPayload) {
    Parse("\x07" + LittleEndian32(5242887) + "\x05");
    EXPECT_EQ(1U, mLog.Lines().size());
    EXPECT_TRUE(mLog.Has(4, "headLen error: 7\n")) << mLog.Dump();
}

TEST_F(ParseClientFrameHeadTest, FewerThanSixBytesAreNoHead) {
    Parse("\x07" + LittleEndian32(5242887));
    EXPECT_EQ(0, mClientID);
    EXPECT_EQ(0U, mPayloadLen);
    EXPECT_THAT(mLog.Lines(), IsEmpty());
}

class ServerFramesTest : public testing::Test {
protected:
    ServerFramesTest() {
        EXPECT_TRUE(mServer->AllocateReassembly());
        mServer->SetObserver(RecordingObserver::Functions());
        mServer->Pending() = false;
    }
    ~ServerFramesTest() override {
        mServer->Pending() = false;
        lumora_test::ResetBoundedCalls();
    }

    int Receive(const Bytes& bytes) {
        ReceivedBytes received(bytes);
        return mServer->ParseAndSendData(received.Data(), received.Length());
    }
    std::vector<std::string> Blocks() const { return mObserver.mBlocks.Items(); }
    static std::string Block(int clientID, const Bytes& payload) {
        return RecordingObserver::Item(clientID, payload);
    }

    CapturedLog mLog;
    RecordingObserver mObserver;
    std::shared_ptr<OpenServer> mServer = std::make_shared<OpenServer>();
};

TEST_F(ServerFramesTest, PayloadIsDeliveredWithoutItsHead) {
    EXPECT_EQ(0, Receive(ClientFrame(7, "0123456789")));
    EXPECT_THAT(Blocks(), ElementsAre(Block(7, "0123456789")));
    EXPECT_EQ(0U, mServer->BufferedLength());
    EXPECT_FALSE(mServer->Pending());
}

TEST_F(ServerFramesTest, ThreeFramesOfOneReadComeInOrder) {
    mObserver.mResult = -1;  // ignored
    Receive(ClientFrame(1, "one") + ClientFrame(2, "2") + ClientFrame(255, "three"));
    EXPECT_THAT(Blocks(), ElementsAre(Block(1, "one"), Block(2, "2"), Block(255, "three")));
}

TEST_F(ServerFramesTest, DataWithoutAReceiveFunctionIsDropped) {
    mServer->SetObserver(LUM_OBSERVER_S());
    EXPECT_EQ(0, Receive(ClientFrame(1, "one")));
    EXPECT_EQ(0U, mServer->BufferedLength());
}

TEST_F(ServerFramesTest, SplitFrameComesOnceWithItsLastByte) {
    const Bytes frame = ClientFrame(3, "payload");
    for (size_t cut = 1; cut < frame.size(); ++cut) {
        const size_t before = mObserver.mBlocks.Count();
        EXPECT_EQ(0, Receive(frame.substr(0, cut)));
        EXPECT_EQ(before, mObserver.mBlocks.Count());
        EXPECT_TRUE(mServer->Pending());
        EXPECT_EQ(0, Receive(frame.substr(cut)));
        ASSERT_EQ(before + 1, mObserver.mBlocks.Count()) << cut;
        EXPECT_EQ(Block(3, "payload"), Blocks().back());
        EXPECT_FALSE(mServer->Pending());
    }
}

TEST_F(ServerFramesTest, FrameMayComeByteByByte) {
    for (const char byte : ClientFrame(3, "payload")) {
        EXPECT_THAT(Blocks(), IsEmpty());
        EXPECT_EQ(0, Receive(Bytes(1, byte)));
    }
    EXPECT_THAT(Blocks(), ElementsAre(Block(3, "payload")));
}

TEST_F(ServerFramesTest, IncompleteFrameSaysWhatItHasAndIsCompletedLater) {
    const Bytes frame = ClientFrame(3, Bytes(100, 'x'));
    Receive(frame.substr(0, 50));
    EXPECT_THAT(mLog.Texts(1), ElementsAre("payloadLen  = 100, length = 50, we will not parse\n"));
    mLog.Clear();
    Receive(frame.substr(50, 49));
    EXPECT_THAT(mLog.Lines(), IsEmpty());  // not even the payload's length is there
    Receive(frame.substr(99, 6));
    EXPECT_THAT(mLog.Texts(1), ElementsAre("payloadLen  = 100, length = 105, we will not parse\n"));
    Receive(frame.substr(105));
    EXPECT_THAT(Blocks(), ElementsAre(Block(3, Bytes(100, 'x'))));
}

// Cutting is tried as soon as as many bytes as the payload has are there, head or not.
TEST_F(ServerFramesTest, PendingFrameIsTriedFromThePayloadsLengthOn) {
    const Bytes frame = ClientFrame(3, Bytes(100, 'x'));
    Receive(frame.substr(0, 50));
    mLog.Clear();
    Receive(frame.substr(50, 50));
    EXPECT_THAT(mLog.Texts(1), ElementsAre("payloadLen  = 100, length = 100, we will not parse\n"));
}

TEST_F(ServerFramesTest, EmptyPayloadAtTheEndOfAReadWaitsForMore) {
    const Bytes empty = ClientFrame(4, "");
    ASSERT_EQ(6U, empty.size());
    Receive(empty);
    EXPECT_THAT(Blocks(), IsEmpty());
    EXPECT_EQ(empty, mServer->Buffered());
    Receive(ClientFrame(5, "x"));
    EXPECT_THAT(Blocks(), ElementsAre(Block(4, ""), Block(5, "x")));
}

TEST_F(ServerFramesTest, EmptyPayloadBeforeAnotherFrameIsDeliveredAtOnce) {
    Receive(ClientFrame(4, "") + ClientFrame(5, "x"));
    EXPECT_THAT(Blocks(), ElementsAre(Block(4, ""), Block(5, "x")));
}

TEST_F(ServerFramesTest, HeadIsSixBytesLongWhateverItSays) {
    for (char headLen = 0; headLen <= 6; ++headLen) {
        Bytes frame = ClientFrame(9, "payload");
        frame[0] = headLen;
        Receive(frame);
        EXPECT_EQ(Block(9, "payload"), Blocks().back());
    }
    EXPECT_EQ(7U, mObserver.mBlocks.Count());
}

TEST_F(ServerFramesTest, IllegalHeadIsAnEmptyPayloadOfClientZero) {
    Bytes illegal = ClientFrame(9, "");
    illegal[0] = 7;
    Receive(illegal + ClientFrame(5, "x"));
    EXPECT_THAT(Blocks(), ElementsAre(Block(0, ""), Block(5, "x")));
    EXPECT_THAT(mLog.Texts(4), ElementsAre("headLen error: 7\n"));
}

TEST_F(ServerFramesTest, IllegalPayloadLengthIsAnEmptyPayloadOfClientZero) {
    Receive("\x06" + LittleEndian32(5242887) + "\x09" + ClientFrame(5, "x"));
    EXPECT_THAT(Blocks(), ElementsAre(Block(0, ""), Block(5, "x")));
    EXPECT_THAT(mLog.Texts(4), ElementsAre("payloadLen error: 5242887\n"));
}

TEST_F(ServerFramesTest, PendingHeadIsNotReadBeforeAsManyBytesAsItClaimsAreThere) {
    Receive("\xc8" + Bytes(5, 'x'));
    EXPECT_EQ(0, Receive(Bytes(193, 'x')));
    EXPECT_THAT(mLog.Lines(), IsEmpty());
    EXPECT_THAT(Blocks(), IsEmpty());
    Receive("x");
    EXPECT_TRUE(mLog.Has(4, "headLen error: 200\n")) << mLog.Dump();
    EXPECT_EQ(Block(0, ""), Blocks().front());
}

TEST_F(ServerFramesTest, LargestFrameIsTaken) {
    const Bytes payload(5242886, 'x');
    const Bytes frame = ClientFrame(1, payload);
    for (size_t sent = 0; sent < frame.size(); sent += READ_SIZE) {
        EXPECT_THAT(Blocks(), IsEmpty());
        EXPECT_EQ(0, Receive(frame.substr(sent, READ_SIZE)));
    }
    ASSERT_EQ(1U, mObserver.mBlocks.Count());
    EXPECT_TRUE(Block(1, payload) == Blocks().front());
}

TEST_F(ServerFramesTest, NothingIsKeptBeyondTheBuffer) {
    const Bytes frame = ClientFrame(1, Bytes(5242886, 'x'));
    Receive(frame.substr(0, frame.size() - 1));
    EXPECT_EQ(0, Receive(""));
    const size_t room = BUFFER_SIZE - (frame.size() - 1);
    EXPECT_EQ(-1, Receive(Bytes(room + 1, 'x')));
    EXPECT_THAT(mLog.Texts(4), ElementsAre("memcpy_s failed!\n"));
    EXPECT_EQ(frame.size() - 1, mServer->BufferedLength());
    EXPECT_EQ(0, Receive("x" + Bytes(room - 1, '\0')));
    EXPECT_EQ(Block(1, Bytes(5242886, 'x')), Blocks().front());
}

TEST_F(ServerFramesTest, RestThatCannotBeMovedFails) {
    const Bytes frame = ClientFrame(1, "12345");
    Receive(frame.substr(0, 5));
    lumora_test::FailBoundedCall(lumora_test::Bounded::MEMCPY, 2);
    EXPECT_EQ(-1, Receive(frame.substr(5) + "\x06"));
    EXPECT_THAT(mLog.Texts(4), ElementsAre("memcpy_s failed!\n", "CopyLeftDataToBuffer failed!\n"));
}

TEST_F(ServerFramesTest, LackOfMemoryLosesNoFrame) {
    const Bytes first = ClientFrame(1, "1");
    const Bytes second = ClientFrame(2, Bytes(100, '2'));
    const Bytes third = ClientFrame(3, "three");
    Receive(first.substr(0, 5));
    ReceivedBytes rest(first.substr(5) + second.substr(0, 50));
    mObserver.mOnData = [](const char*, unsigned int) { lumora_test::FailAllocation(); };
    EXPECT_EQ(-1, mServer->ParseAndSendData(rest.Data(), rest.Length()));
    mObserver.mOnData = nullptr;
    EXPECT_THAT(mLog.Texts(4), ElementsAre("malloc failed!\n", "CopyLeftDataToBuffer failed!\n"));
    EXPECT_EQ(0, Receive(second.substr(50) + third));
    EXPECT_THAT(Blocks(), ElementsAre(Block(1, "1"), Block(2, Bytes(100, '2')), Block(3, "three")));
}

TEST_F(ServerFramesTest, AllServerTransportsHaveOnePendingFlag) {
    OpenServer other;
    ASSERT_TRUE(other.AllocateReassembly());
    other.SetObserver(RecordingObserver::Functions());
    const Bytes frame = ClientFrame(1, "payload");
    Receive(frame.substr(0, 6));
    ReceivedBytes whole(frame);
    other.ParseAndSendData(whole.Data(), whole.Length());
    EXPECT_THAT(Blocks(), ElementsAre(Block(1, "payload")));
    EXPECT_FALSE(mServer->Pending());
}

}  // namespace
}  // namespace lumoraAiModule
