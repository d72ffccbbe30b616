#include "tests/server/server_fixture.h"

namespace lumora_test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

// Frames as they are handed to the transport.
class ServerSendTest : public ServerModuleTest {
protected:
    ServerSendTest() { StartWith({"face", "body"}); }

    void OpenFakeChannel() {
        ASSERT_EQ("Succ", RequestSetup().reply) << mLog.Dump();
        mLog.Clear();
    }

    // Subscribes clients 1, 2 ... and gives their identifiers as they stand in a frame.
    Bytes SubscribeMany(int count, const std::string& serviceName) {
        Bytes clientIDs;
        for (int clientID = 1; clientID <= count; ++clientID) {
            EXPECT_EQ(0, Subscribe(clientID, serviceName));
            clientIDs += static_cast<char>(clientID);
        }
        mLog.Clear();
        return clientIDs;
    }

    const Texts& Frames() const { return mTransports.next->sent; }

    FakeTransports mTransports;
};

// ---- Checks ----

TEST_F(ServerSendTest, ArgumentsAreRefusedInThisOrderBeforeTheEntryLine) {
    const struct {
        const char* data;
        unsigned int length;
        unsigned int* sent;
        const char* error;
    } calls[] = {{nullptr, 0, nullptr, "input buffer is nullptr!\n"},
                 {nullptr, 1, &mSent, "input buffer is nullptr!\n"},
                 {"x", 0, nullptr, "sendLength is nullptr!\n"},
                 {"", 0, &mSent, "payload dataLen is 0!\n"}};
    for (const auto& call : calls) {
        mLog.Clear();
        EXPECT_EQ(-1, mModule->SendDataToClient("unknown", call.data, call.length, call.sent, 0));
        EXPECT_THAT(Errors(), ElementsAre(call.error));
        EXPECT_THAT(mLog.Texts(0), IsEmpty());
    }
}

TEST_F(ServerSendTest, WithoutATransportTheServiceIsNotLookedAt) {
    EXPECT_EQ(-1, Send("unknown", "x"));
    EXPECT_THAT(Errors(), ElementsAre("no transport created , please connect first!\n"));
    EXPECT_THAT(mLog.Texts(0), ElementsAre("Enter\n"));
}

TEST_F(ServerSendTest, UnknownServiceIsRefused) {
    OpenFakeChannel();
    for (const char* name : {"", "Face", "face ", "text"}) {
        mLog.Clear();
        EXPECT_EQ(-1, Send(name, "x"));
        EXPECT_THAT(Errors(), ElementsAre("serviceName is illegal\n", "PacketAndSendData failed!\n"));
    }
    EXPECT_THAT(Frames(), IsEmpty());
}

TEST_F(ServerSendTest, RefusedSendsLeaveTheCallersCountAlone) {
    Send("face", "");
    Send("face", "x");
    OpenFakeChannel();
    Send("unknown", "x");
    SubscribeMany(90, "face");
    Send("face", "x");
    EXPECT_EQ(4711U, mSent);
}

// ---- Frames ----

TEST_F(ServerSendTest, FrameNamesTheSubscribersInTheirOrder) {
    OpenFakeChannel();
    Subscribe(4, "face");
    Subscribe(3, "face");
    Subscribe(5, "body");
    mLog.Clear();
    EXPECT_EQ(0, Send("face", "abc"));
    EXPECT_THAT(Frames(), ElementsAre(Bytes("\x0d\x03\x00\x00\x00\x02\x04\x03\x04"
                                            "face"
                                            "abc",
                                            16)));
    EXPECT_EQ(3U, mSent);
    EXPECT_THAT(mLog.Texts(0), ElementsAre("Enter\n", "Out\n"));
    EXPECT_THAT(Errors(), IsEmpty());
}

TEST_F(ServerSendTest, ServiceWithoutSubscribersIsSentAllTheSame) {
    OpenFakeChannel();
    EXPECT_EQ(0, Send("face", "abc"));
    EXPECT_THAT(Frames(), ElementsAre(Bytes("\x0b\x03\x00\x00\x00\x00\x04"
                                            "face"
                                            "abc",
                                            14)));
    EXPECT_EQ(3U, mSent);
}

TEST_F(ServerSendTest, CancelledSubscriptionsAreNamedNoMore) {
    OpenFakeChannel();
    Subscribe(3, "face");
    Subscribe(4, "face");
    Subscribe(5, "face");
    Unsubscribe(4, "face");
    Connect(3);
    Connect(5);
    Destroy(3);
    EXPECT_EQ(0, Send("face", "x"));
    EXPECT_THAT(Frames(), ElementsAre(ServerFrameBytes("\x05", "face", "x")));
}

TEST_F(ServerSendTest, IdentifiersAreCutToTheirLowByte) {
    OpenFakeChannel();
    Subscribe(258, "face");
    Subscribe(-1, "face");
    EXPECT_EQ(0, Send("face", "x"));
    EXPECT_THAT(Frames(), ElementsAre(ServerFrameBytes("\x02\xff", "face", "x")));
}

TEST_F(ServerSendTest, PayloadIsAnyBytesOfAnyLength) {
    OpenFakeChannel();
    Subscribe(3, "face");
    Bytes payload;
    for (const unsigned int length : {1U, 39U, 40U, 255U, 256U, 65535U, 65536U, 1024000U}) {
        while (payload.size() < length) {
            payload += static_cast<char>(payload.size() * 7);
        }
        EXPECT_EQ(0, Send("face", payload));
        EXPECT_EQ(length, mSent);
        EXPECT_EQ(ServerFrameBytes("\x03", "face", payload), Frames().back()) << length;
    }
}

TEST_F(ServerSendTest, TimeoutIsHandedOn) {
    OpenFakeChannel();
    Send("face", "x", 0);
    Send("face", "x", 3000);
    EXPECT_THAT(mTransports.next->timeouts, ElementsAre(0U, 3000U));
}

TEST_F(ServerSendTest, HeadOf100BytesIsTheLongest) {
    const std::string name(39, 'n');
    Register({name});
    OpenFakeChannel();
    const Bytes clientIDs = SubscribeMany(54, name);
    EXPECT_EQ(0, Send(name, "abc"));
    EXPECT_THAT(Frames(), ElementsAre(ServerFrameBytes(clientIDs, name, "abc")));
    EXPECT_EQ(100, Frames()[0][0]);
    EXPECT_EQ(3U, mSent);
}

TEST_F(ServerSendTest, LongerHeadsAreRefused) {
    const std::string name(39, 'n');
    Register({name, "face"});
    OpenFakeChannel();
    SubscribeMany(55, name);
    EXPECT_EQ(-1, Send(name, "abc"));
    EXPECT_THAT(Errors(), ElementsAre("headLen 101 illegal\n", "PacketAndSendData failed!\n"));
    SubscribeMany(300, "face");  // the length would not fit into its byte
    EXPECT_EQ(-1, Send("face", "abc"));
    EXPECT_THAT(Errors(), ElementsAre("headLen 311 illegal\n", "PacketAndSendData failed!\n"));
    EXPECT_THAT(Frames(), IsEmpty());
}

TEST_F(ServerSendTest, NameOf40CharactersCannotBeSent) {
    const std::string name(40, 'n');
    Register({name});
    OpenFakeChannel();
    EXPECT_EQ(-1, Send(name, "abc"));
    EXPECT_THAT(Errors(), ElementsAre("strncpy_s failed!\n", "PacketAndSendData failed!\n"));
    EXPECT_EQ(0U, mSent);
    EXPECT_THAT(Frames(), IsEmpty());
}

// ---- What the transport makes of it ----

TEST_F(ServerSendTest, HeadIsNotCounted) {
    OpenFakeChannel();
    const unsigned int headLen = 11;
    for (const unsigned int went : {headLen + 100, headLen + 99, headLen + 1}) {
        mTransports.next->send = [went](unsigned int, unsigned int* written) {
            *written = went;
            return 0;
        };
        EXPECT_EQ(0, Send("face", Bytes(100, 'x')));
        EXPECT_EQ(went - headLen, mSent);
    }
}

TEST_F(ServerSendTest, CountIsNeverBelowZero) {
    OpenFakeChannel();
    for (const unsigned int went : {11U, 10U, 1U, 0U}) {
        mTransports.next->send = [went](unsigned int, unsigned int* written) {
            *written = went;
            return 0;
        };
        EXPECT_EQ(0, Send("face", Bytes(100, 'x')));
        EXPECT_EQ(0U, mSent) << went;
    }
}

TEST_F(ServerSendTest, FailedSendCountsNothing) {
    OpenFakeChannel();
    for (const int result : {-1, 1}) {
        mTransports.next->send = [result](unsigned int length, unsigned int* written) {
            *written = length;
            return result;
        };
        mLog.Clear();
        mSent = 4711;
        EXPECT_EQ(-1, Send("face", "abc"));
        EXPECT_THAT(Errors(), ElementsAre("SendDataToClient failed!\n", "PacketAndSendData failed!\n"));
        EXPECT_EQ(0U, mSent);
    }
}

TEST_F(ServerSendTest, FailureThatLeavesTheCountAloneCountsNothing) {
    OpenFakeChannel();
    mTransports.next->send = [](unsigned int, unsigned int*) { return -1; };
    EXPECT_EQ(-1, Send("face", "abc"));
    EXPECT_EQ(0U, mSent);
}

TEST_F(ServerSendTest, FrameForATransportThatWentMeanwhileIsDropped) {
    OpenFakeChannel();
    RunInBoundedCall(Bounded::MEMSET, [this] { EXPECT_EQ(0, mPlatform.Put("StopTransport")); });
    EXPECT_EQ(0, Send("face", "abc"));
    EXPECT_EQ(0U, mSent);
    EXPECT_THAT(Frames(), IsEmpty());
    EXPECT_THAT(Errors(), IsEmpty());
}

TEST_F(ServerSendTest, FrameIsSentOnTheTransportThatReplacedTheOneBefore) {
    OpenFakeChannel();
    const auto first = mTransports.next;
    RunInBoundedCall(Bounded::STRNCPY, [this] {
        mTransports.next = std::make_shared<FakeTransport>();
        EXPECT_EQ("Succ", RequestSetup().reply);
    });
    EXPECT_EQ(0, Send("face", "abc"));
    EXPECT_THAT(first->sent, IsEmpty());
    EXPECT_EQ(1U, Frames().size());
}

// ---- Failures while building ----

TEST_F(ServerSendTest, FrameThatCannotBeBuiltFailsTheSendAndChangesNothingElse) {
    OpenFakeChannel();
    const Bytes clientIDs = SubscribeMany(3, "face");
    const struct {
        Bounded function;
        const char* error;
        unsigned int sent;
    } failures[] = {{Bounded::MEMSET, "memset_s failed\n", 4711},
                    {Bounded::STRNCPY, "strncpy_s failed!\n", 0},
                    {Bounded::MEMCPY, "memcpy_s failed!\n", 0}};
    for (const auto& failure : failures) {
        mLog.Clear();
        mSent = 4711;
        FailBoundedCall(failure.function);
        EXPECT_EQ(-1, Send("face", "abc"));
        EXPECT_THAT(Errors(), ElementsAre(failure.error, "PacketAndSendData failed!\n"));
        EXPECT_EQ(failure.sent, mSent);
        EXPECT_THAT(Frames(), IsEmpty());
    }
    EXPECT_EQ(0, Send("face", "abc"));
    EXPECT_THAT(Frames(), ElementsAre(ServerFrameBytes(clientIDs, "face", "abc")));
}

TEST_F(ServerSendTest, FrameWithoutMemoryFailsTheSend) {
    const std::string name = "face";
    OpenFakeChannel();
    Subscribe(3, name);
    Send(name, "abc");
    mLog.Clear();
    FailAllocation();
    const int ret = mModule->SendDataToClient(name, "abc", 3, &mSent, 0);
    ResetAllocationFaults();
    EXPECT_EQ(-1, ret);
    EXPECT_THAT(Errors(), ElementsAre("memory malloc error\n", "PacketAndSendData failed!\n"));
    EXPECT_EQ(1U, Frames().size());
}

TEST_F(ServerSendTest, FrameOfTheLongestPayloadWithoutMemoryFailsTheSend) {
    const std::string name = "face";
    const Bytes payload(LUM_MAX_SERVER_DATA_LENGTH, 'x');
    OpenFakeChannel();
    Send(name, "abc");
    mLog.Clear();
    mSent = 4711;
    FailAllocation();
    const int ret = mModule->SendDataToClient(name, payload.data(), LUM_MAX_SERVER_DATA_LENGTH, &mSent, 0);
    ResetAllocationFaults();
    EXPECT_EQ(-1, ret);
    EXPECT_THAT(Errors(), ElementsAre("memory malloc error\n", "PacketAndSendData failed!\n"));
    EXPECT_EQ(4711U, mSent);
}

TEST_F(ServerSendTest, PayloadFrom64KibOnIsNotCopied) {
    OpenFakeChannel();
    const Bytes clientIDs = SubscribeMany(3, "face");
    const Bytes payload(65536, 'x');
    ResetAllocationFaults();
    FailBoundedCall(Bounded::MEMCPY);
    EXPECT_EQ(0, mModule->SendDataToClient("face", payload.data(), 65536, &mSent, 0));
    EXPECT_EQ(0, LargeAllocationCount());
    EXPECT_EQ(65536U, mSent);
    EXPECT_THAT(Frames(), ElementsAre(ServerFrameBytes(clientIDs, "face", payload)));
    EXPECT_EQ(-1, mModule->SendDataToClient("face", payload.data(), 65535, &mSent, 0));
    EXPECT_THAT(Errors(), ElementsAre("memcpy_s failed!\n", "PacketAndSendData failed!\n"));
}

TEST_F(ServerSendTest, SendAllocatesOnce) {
    const std::string name = "face";
    OpenFakeChannel();
    SubscribeMany(20, name);
    Send(name, "abc");
    FailAllocation(2);
    EXPECT_EQ(0, mModule->SendDataToClient(name, "abc", 3, &mSent, 0));
    EXPECT_TRUE(AllocationFailurePending());
    ResetAllocationFaults();
}

}  // namespace
}  // namespace lumora_test
