// Cutting a stream of server frames, over bytes alone.
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
using lumora_test::LittleEndian32;
using lumora_test::OpenClient;
using lumora_test::ReceivedBytes;
using lumora_test::ServerFrameBytes;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr size_t BUFFER_SIZE = 2072676;

// The smallest frame there is: only the lengths and the payload.
Bytes BareFrame(unsigned int headLen, const Bytes& payload) {
    return Bytes(1, static_cast<char>(headLen)) + LittleEndian32(static_cast<unsigned int>(payload.size())) +
           Bytes(headLen - 5, '.') + payload;
}

class ParseServerFrameHeadTest : public testing::Test {
protected:
    void Parse(const Bytes& head) {
        LumoraTCPTransClient::ParseDataHead(head.data(), mHeadLen, mFrameLength);
    }

    CapturedLog mLog;
    unsigned int mHeadLen = 77;
    unsigned int mFrameLength = 88;
};

TEST_F(ParseServerFrameHeadTest, FrameIsAsLongAsHeadAndPayload) {
    Parse(Bytes("\x0c\x10\0\0\0", 5));
    EXPECT_EQ(12U, mHeadLen);
    EXPECT_EQ(28U, mFrameLength);
    EXPECT_THAT(mLog.Lines(), IsEmpty());
}

TEST_F(ParseServerFrameHeadTest, HeadOf100BytesIsTheLongest) {
    Parse(Bytes("\x64\x01\0\0\0", 5));
    EXPECT_EQ(101U, mFrameLength);
    Parse(Bytes("\x65\x09\0\0\0", 5));
    EXPECT_EQ(101U, mHeadLen);
    EXPECT_EQ(101U, mFrameLength);  // as it was
    EXPECT_THAT(mLog.Texts(1), ElementsAre("headLen = 101, illegal.\n"));
    EXPECT_EQ(1U, mLog.Lines().size());
}

TEST_F(ParseServerFrameHeadTest, HeadLengthIsUnsigned) {
    Parse(Bytes("\xff\x01\0\0\0", 5));
    EXPECT_EQ(88U, mFrameLength);
    EXPECT_TRUE(mLog.Has(1, "headLen = 255, illegal.\n")) << mLog.Dump();
}

TEST_F(ParseServerFrameHeadTest, PayloadOf1024000BytesIsTheLongest) {
    Parse("\x0c" + LittleEndian32(1024000));
    EXPECT_EQ(1024012U, mFrameLength);
    EXPECT_THAT(mLog.Lines(), IsEmpty());
    Parse("\x0c" + LittleEndian32(1024001));
    EXPECT_EQ(0U, mHeadLen);
    EXPECT_EQ(0U, mFrameLength);
    EXPECT_THAT(mLog.Texts(4), ElementsAre("payloadLen = 1024001, illegal.\n"));
}

TEST_F(ParseServerFrameHeadTest, LongHeadIsReportedBeforeALongPayload) {
    Parse("\x65" + LittleEndian32(1024001));
    EXPECT_EQ(1U, mLog.Lines().size());
    EXPECT_TRUE(mLog.Has(1, "headLen = 101, illegal.\n")) << mLog.Dump();
}

class ClientFramesTest : public testing::Test {
protected:
    ClientFramesTest() {
        EXPECT_TRUE(mClient->AllocateReassembly());
        mClient->Pending() = false;
    }
    ~ClientFramesTest() override {
        mClient->Pending() = false;
        lumora_test::ResetBoundedCalls();
        lumora_test::ResetAllocationFaults();
    }

    int Receive(const Bytes& bytes) {
        ReceivedBytes received(bytes);
        return mClient->ParseAndSendData(received.Data(), received.Length());
    }
    std::vector<std::string> Frames() const { return mCallback.mFrames.Items(); }

    CapturedLog mLog;
    lumora_test::RecordingCallback mCallback;
    std::shared_ptr<OpenClient> mClient = std::make_shared<OpenClient>(mCallback, 3U);
};

TEST_F(ClientFramesTest, ThreeFramesOfOneReadComeInOrderAndWhole) {
    const Bytes one = ServerFrameBytes("\x01", "text", "1");
    const Bytes two = ServerFrameBytes("\x01\x02", "text", "two");
    const Bytes three = ServerFrameBytes("\x02", "text", Bytes(1000, '3'));
    EXPECT_EQ(0, Receive(one + two + three));
    EXPECT_THAT(Frames(), ElementsAre(one, two, three));
    EXPECT_EQ(0U, mClient->BufferedLength());
    EXPECT_FALSE(mClient->Pending());
}

TEST_F(ClientFramesTest, CallbacksResultIsIgnored) {
    mCallback.mResult = -1;
    const Bytes frame = ServerFrameBytes("\x01", "text", "1");
    EXPECT_EQ(0, Receive(frame + frame));
    EXPECT_THAT(Frames(), ElementsAre(frame, frame));
}

TEST_F(ClientFramesTest, SplitFrameComesOnceWithItsLastByte) {
    const Bytes frame = ServerFrameBytes("\x01", "text", "payload");
    for (size_t cut = 1; cut < frame.size(); ++cut) {
        const size_t before = mCallback.mFrames.Count();
        EXPECT_EQ(0, Receive(frame.substr(0, cut)));
        EXPECT_EQ(before, mCallback.mFrames.Count());
        EXPECT_TRUE(mClient->Pending());
        EXPECT_EQ(0, Receive(frame.substr(cut)));
        ASSERT_EQ(before + 1, mCallback.mFrames.Count()) << cut;
        EXPECT_EQ(frame, Frames().back());
        EXPECT_FALSE(mClient->Pending());
        EXPECT_EQ(0U, mClient->BufferedLength());
    }
}

TEST_F(ClientFramesTest, FrameMayComeByteByByte) {
    const Bytes frame = ServerFrameBytes(Bytes(20, '\x05'), Bytes(40, 'n'), "payload");
    for (const char byte : frame) {
        EXPECT_THAT(Frames(), IsEmpty());
        EXPECT_EQ(0, Receive(Bytes(1, byte)));
    }
    EXPECT_THAT(Frames(), ElementsAre(frame));
}

TEST_F(ClientFramesTest, RestBehindACompletedFrameMovesToTheFront) {
    const Bytes one = ServerFrameBytes("\x01", "text", Bytes(50, '1'));
    const Bytes two = ServerFrameBytes("\x01", "text", Bytes(60, '2'));
    Receive(one.substr(0, 20));
    Receive(one.substr(20) + two.substr(0, 30));
    EXPECT_THAT(Frames(), ElementsAre(one));
    EXPECT_EQ(two.substr(0, 30), mClient->Buffered());
    Receive(two.substr(30));
    EXPECT_THAT(Frames(), ElementsAre(one, two));
}

TEST_F(ClientFramesTest, LargestFrameIsTaken) {
    const Bytes frame = BareFrame(100, Bytes(1024000, 'x'));
    Receive(frame.substr(0, frame.size() - 1));
    EXPECT_THAT(Frames(), IsEmpty());
    Receive(frame.substr(frame.size() - 1));
    EXPECT_EQ(1U, mCallback.mFrames.Count());
    EXPECT_EQ(frame, Frames().front());
}

TEST_F(ClientFramesTest, LargestRestAndLargestReadFitTogether) {
    const Bytes frame = BareFrame(100, Bytes(1024000, 'x'));
    const Bytes small = ServerFrameBytes("\x01", "text", Bytes(88, 'y'));
    Bytes read = frame.substr(frame.size() - 1);
    while (read.size() < READ_SIZE) {
        read += small;
    }
    EXPECT_EQ(0, Receive(frame.substr(0, frame.size() - 1)));
    EXPECT_EQ(0, Receive(read.substr(0, READ_SIZE)));
    EXPECT_EQ(1 + (READ_SIZE - 1) / small.size(), mCallback.mFrames.Count());
}

TEST_F(ClientFramesTest, EmptyPayloadAtTheEndOfAReadWaitsForMore) {
    const Bytes empty = ServerFrameBytes("\x01", "text", "");
    const Bytes next = ServerFrameBytes("\x01", "text", "1");
    Receive(empty);
    EXPECT_THAT(Frames(), IsEmpty());
    EXPECT_EQ(empty, mClient->Buffered());
    Receive(next);
    EXPECT_THAT(Frames(), ElementsAre(empty, next));
}

TEST_F(ClientFramesTest, ShortFrameBehindALongHeadWaitsForMore) {
    const Bytes longHead = ServerFrameBytes(Bytes(20, '\x01'), Bytes(40, 'n'), "1");
    const Bytes shortHead = ServerFrameBytes("\x01", "t", "2");
    Receive(longHead + shortHead);
    EXPECT_THAT(Frames(), ElementsAre(longHead));
    Receive(shortHead);
    EXPECT_THAT(Frames(), ElementsAre(longHead, shortHead, shortHead));
}

TEST_F(ClientFramesTest, IllegalFirstByteIsKeptWhole) {
    for (const char first : {'\0', '\x65', '\xff'}) {
        mLog.Clear();
        mClient->AllocateReassembly();
        mClient->Pending() = false;
        const Bytes bytes = first + Bytes(300, 'x');
        EXPECT_EQ(0, Receive(bytes));
        EXPECT_EQ(bytes, mClient->Buffered());
        const int shown = static_cast<unsigned char>(first);
        EXPECT_THAT(mLog.Texts(1), ElementsAre("headLen:" + std::to_string(shown) + ", illegal.\n"));
        EXPECT_EQ(1U, mLog.Lines().size());
    }
    EXPECT_THAT(Frames(), IsEmpty());
}

TEST_F(ClientFramesTest, HeadOf100BytesIsLegal) {
    const Bytes frame = BareFrame(100, "payload");
    Receive(frame);
    EXPECT_THAT(Frames(), ElementsAre(frame));
}

TEST_F(ClientFramesTest, StalledStreamIsHeldUntilTheBufferIsFull) {
    Receive("\xff" + Bytes(299, 'x'));
    mLog.Clear();
    EXPECT_EQ(0, Receive(Bytes(10, 'y')));
    EXPECT_THAT(mLog.Texts(1), ElementsAre("headLen = 255, illegal.\n", "headLen:255, illegal.\n"));
    EXPECT_EQ(0, Receive(Bytes(BUFFER_SIZE - 310, 'z')));
    EXPECT_EQ(BUFFER_SIZE, mClient->BufferedLength());
    EXPECT_THAT(mLog.Texts(4), IsEmpty());
    EXPECT_EQ(-1, Receive("!"));
    EXPECT_THAT(mLog.Texts(4), ElementsAre("memcpy_s failed!\n"));
    EXPECT_EQ(BUFFER_SIZE, mClient->BufferedLength());
    EXPECT_THAT(Frames(), IsEmpty());
}

TEST_F(ClientFramesTest, IllegalHeadShorterThanItsLengthIsNotReadYet) {
    Receive(Bytes(1, '\xff'));
    mLog.Clear();
    EXPECT_EQ(0, Receive(Bytes(253, 'x')));
    EXPECT_THAT(mLog.Lines(), IsEmpty());
    EXPECT_EQ(0, Receive("x"));
    EXPECT_THAT(mLog.Texts(1), ElementsAre("headLen = 255, illegal.\n", "headLen:255, illegal.\n"));
}

// The length of the frame before is still in force then: this is how such a stream has always been cut.
TEST_F(ClientFramesTest, IllegalHeadBehindAFrameIsCutAtThatFramesLength) {
    const Bytes frame = ServerFrameBytes("\x01", "text", "12345");
    const Bytes illegal = "\x65" + Bytes(frame.size() - 1, 'x');
    Receive(frame + illegal + "rest");
    EXPECT_THAT(Frames(), ElementsAre(frame, illegal));
    EXPECT_EQ("rest", mClient->Buffered());
    EXPECT_THAT(mLog.Texts(1), ElementsAre("headLen = 101, illegal.\n"));
}

TEST_F(ClientFramesTest, IllegalHeadBehindAFrameWaitsForThatFramesLength) {
    const Bytes frame = ServerFrameBytes("\x01", "text", "12345");
    const Bytes illegal = "\x65" + Bytes(frame.size() - 2, 'x');
    Receive(frame + illegal);
    EXPECT_THAT(Frames(), ElementsAre(frame));
    EXPECT_EQ(illegal, mClient->Buffered());
}

TEST_F(ClientFramesTest, IllegalPayloadLengthEndsTheCutting) {
    const Bytes frame = ServerFrameBytes("\x01", "text", "1");
    const Bytes illegal = "\x0c" + LittleEndian32(1024001) + Bytes(50, 'x');
    EXPECT_EQ(0, Receive(frame + illegal + frame));
    EXPECT_THAT(Frames(), ElementsAre(frame));
    EXPECT_EQ(illegal + frame, mClient->Buffered());
    EXPECT_THAT(mLog.Texts(4), ElementsAre("payloadLen = 1024001, illegal.\n"));

    EXPECT_EQ(0, Receive(frame));
    EXPECT_THAT(Frames(), ElementsAre(frame));
    EXPECT_EQ(illegal + frame + frame, mClient->Buffered());
}

TEST_F(ClientFramesTest, FrameOfNoLengthAtAllEndsTheCutting) {
    const Bytes frame = ServerFrameBytes("\x01", "text", "1");
    const Bytes nothing(200, '\0');
    EXPECT_EQ(0, Receive(frame + nothing));
    EXPECT_THAT(Frames(), ElementsAre(frame));
    EXPECT_EQ(nothing, mClient->Buffered());
}

TEST_F(ClientFramesTest, CompleteFrameShorterThanAnyHeadIsStillPassedOn) {
    const Bytes lying = Bytes("\x01\x05\0\0\0", 5) + "x";
    Receive(lying);
    EXPECT_THAT(Frames(), ElementsAre(lying));
}

TEST_F(ClientFramesTest, HeadOfFewerThanFiveBytesIsIncomplete) {
    for (size_t length = 2; length < 5; ++length) {
        mClient->AllocateReassembly();
        mClient->Pending() = false;
        Receive(Bytes("\x01\0\0\0\0", length));
        EXPECT_EQ(length, mClient->BufferedLength());
    }
    EXPECT_THAT(Frames(), IsEmpty());
    EXPECT_THAT(mLog.Lines(), IsEmpty());
}

TEST_F(ClientFramesTest, BeginningThatCannotBeKeptFails) {
    lumora_test::FailBoundedCall(lumora_test::Bounded::MEMCPY);
    EXPECT_EQ(-1, Receive(ServerFrameBytes("\x01", "text", "12345").substr(0, 7)));
    EXPECT_THAT(mLog.Texts(4), ElementsAre("memcpy_s failed!\n"));
    EXPECT_FALSE(mClient->Pending());
}

TEST_F(ClientFramesTest, RestThatCannotBeMovedFails) {
    const Bytes frame = ServerFrameBytes("\x01", "text", "12345");
    Receive(frame.substr(0, 5));
    lumora_test::FailBoundedCall(lumora_test::Bounded::MEMCPY, 2);
    EXPECT_EQ(-1, Receive(frame.substr(5) + "\x0c"));
    EXPECT_THAT(mLog.Texts(4), ElementsAre("memcpy_s failed!\n", "CopyLeftDataToBuffer failed!\n"));
}

TEST_F(ClientFramesTest, LongRestThatCannotBeMovedForLackOfMemoryFails) {
    const Bytes one = ServerFrameBytes("\x01", "text", "1");
    const Bytes two = ServerFrameBytes("\x01", "text", Bytes(100, '2'));
    Receive(one.substr(0, 5));
    ReceivedBytes rest(one.substr(5) + two.substr(0, 50));
    mCallback.mOnData = [](char*, unsigned int) { lumora_test::FailAllocation(); };
    EXPECT_EQ(-1, mClient->ParseAndSendData(rest.Data(), rest.Length()));
    EXPECT_THAT(mLog.Texts(4), ElementsAre("malloc failed!\n", "CopyLeftDataToBuffer failed!\n"));
}

// A frame's fields may reach 66 bytes beyond it; the address sanitizer watches the end of the buffer.
class LyingFrameTest : public ClientFramesTest {
protected:
    LyingFrameTest() {
        mCallback.mOnData = [this](char* data, unsigned int length) {
            for (unsigned int i = length; length == mLying.size() && i < length + FRAME_SPARE_LENGTH - 1;
                 ++i) {
                EXPECT_EQ(0, data[i]) << i;
            }
        };
    }

    // Claims twenty clients, of which it holds four.
    const Bytes mLying = "\x01" + LittleEndian32(9) + "\x14" + Bytes(4, 'x');
};

TEST_F(LyingFrameTest, SpareBytesFollowARead) {
    EXPECT_EQ(0, Receive(mLying));
    EXPECT_THAT(Frames(), ElementsAre(mLying));
}

TEST_F(LyingFrameTest, SpareBytesFollowAReassembledFrame) {
    Receive(ServerFrameBytes("\x01", "text", Bytes(100, 'x')) + mLying.substr(0, 4));
    EXPECT_EQ(0, Receive(mLying.substr(4)));
    EXPECT_EQ(mLying, Frames().back());
}

TEST_F(LyingFrameTest, SpareBytesFollowAFullBuffer) {
    const Bytes large = BareFrame(100, Bytes(1024000, 'l'));
    const Bytes middle = BareFrame(5, Bytes(500000, 'm'));
    const size_t left = BUFFER_SIZE - large.size() - middle.size() - mLying.size();
    Receive(large.substr(0, large.size() - 1));
    EXPECT_EQ(0, Receive("l" + middle + BareFrame(5, Bytes(left - 5, 'n')) + mLying));
    EXPECT_EQ(4U, mCallback.mFrames.Count());
    EXPECT_EQ(mLying, Frames().back());
}

class SharedPendingFlagTest : public ClientFramesTest {
protected:
    SharedPendingFlagTest() { EXPECT_TRUE(mOther->AllocateReassembly()); }

    int OtherReceives(const Bytes& bytes) {
        ReceivedBytes received(bytes);
        return mOther->ParseAndSendData(received.Data(), received.Length());
    }

    lumora_test::RecordingCallback mOtherCallback;
    std::shared_ptr<OpenClient> mOther = std::make_shared<OpenClient>(mOtherCallback, 4U);
    const Bytes mFrame = ServerFrameBytes("\x01", "text", "payload");
};

TEST_F(SharedPendingFlagTest, AllClientTransportsHaveOneFlag) {
    EXPECT_EQ(&mClient->Pending(), &mOther->Pending());
}

TEST_F(SharedPendingFlagTest, OneTransportsWholeFrameEndsTheOthersPendingOne) {
    Receive(mFrame.substr(0, 5));
    OtherReceives(mFrame);
    EXPECT_THAT(mOtherCallback.mFrames.Items(), ElementsAre(mFrame));
    EXPECT_FALSE(mClient->Pending());
    EXPECT_EQ(0, Receive(mFrame.substr(5)));
    EXPECT_THAT(Frames(), IsEmpty());
    EXPECT_EQ(mFrame, mClient->Buffered());
}

TEST_F(SharedPendingFlagTest, ServerTransportsHaveAnotherFlag) {
    auto server = std::make_shared<lumora_test::OpenServer>();
    Receive(mFrame.substr(0, 5));
    EXPECT_TRUE(mClient->Pending());
    EXPECT_FALSE(server->Pending());
}

}  // namespace
}  // namespace lumoraAiModule
