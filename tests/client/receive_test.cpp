// OnRecvData: frames from the device.
#include <atomic>
#include <thread>

#include "library/callback_scope.h"
#include "tests/client/client_fixture.h"
#include "tests/support/eventually.h"

namespace lumoraAiModule {
namespace {

using lumora_test::Eventually;
using lumora_test::LittleEndian32;
using lumora_test::ServerFrameBytes;
using testing::ElementsAre;
using testing::IsEmpty;

// A transport's buffer goes on behind the frame for as long as lying fields can lead.
constexpr std::size_t SPARE = 67;

// The five fields of a frame, whatever they say.
Bytes Frame(unsigned int headLen, unsigned int payloadLen, const Bytes& rest) {
    return Bytes(1, static_cast<char>(headLen)) + LittleEndian32(payloadLen) + rest;
}

Bytes Byte(int value) { return Bytes(1, static_cast<char>(value)); }

class ReceiveTest : public ChannelTest {
protected:
    ReceiveTest() : mCamera(Camera()) { mLog.Clear(); }

    // Hands a frame to the module as a transport would, with zeros behind it.
    int Receive(const Bytes& frame) { return Receive(frame, static_cast<unsigned int>(frame.size())); }
    int Receive(const Bytes& frame, unsigned int length) {
        mBuffer = frame + Bytes(SPARE, '\0');
        return mModule->OnRecvData(&mBuffer[0], length);
    }
    void Register(int clientID) { RegisterEvents(clientID, mCamera); }
    std::vector<int> Receivers() {
        std::vector<int> ids;
        for (const ReceivedEvent& received : ReceivedEvents()) {
            ids.push_back(received.event.clientID);
        }
        return ids;
    }

    const unsigned int mCamera;
    Bytes mBuffer;
};

TEST_F(ReceiveTest, EventCarriesTheFrameFieldByField) {
    Register(1);
    Connect(1, mCamera);
    mLog.Clear();
    EXPECT_EQ(0, Receive(ServerFrameBytes("\x01", "face", "payload")));
    ASSERT_EQ(1U, ReceivedEvents().size());
    const ReceivedEvent received = ReceivedEvents()[0];
    EXPECT_EQ(1, received.event.clientID);
    EXPECT_EQ(mCamera, received.event.handle);
    EXPECT_STREQ("face", received.event.serviceName);
    EXPECT_EQ(2, received.event.eventType);
    EXPECT_EQ(0, received.event.result);
    EXPECT_EQ(7U, received.event.dataLen);
    EXPECT_EQ(&mBuffer[12], received.event.data) << "the payload is not copied";
    EXPECT_EQ("payload", received.payload);
    EXPECT_THAT(mLog.Texts(0), ElementsAre("Enter\n", "Out\n"));
    EXPECT_THAT(mLog.Texts(1), ElementsAre("payloadLen = 7 , clientNum = 1 , serviceNameLen = 4\n"));
    EXPECT_THAT(mLog.Texts(4), IsEmpty());
}

TEST_F(ReceiveTest, ClientThatIsNotConnectedIsToldHandleZero) {
    Register(1);
    EXPECT_EQ(0, Receive(ServerFrameBytes("\x01", "face", "data")));
    EXPECT_EQ(0U, ReceivedEvents().at(0).event.handle);
}

TEST_F(ReceiveTest, EveryListedClientGetsTheEventInTheFramesOrder) {
    NewClients(3);
    for (const int id : {1, 2, 3, 4}) {
        Register(id);
    }
    EXPECT_EQ(0, Receive(ServerFrameBytes("\x03\x01\x04", "face", "data")));
    EXPECT_THAT(Receivers(), ElementsAre(3, 1, 4));
}

TEST_F(ReceiveTest, ClientListedTwiceGetsTheEventTwice) {
    Register(1);
    EXPECT_EQ(0, Receive(ServerFrameBytes("\x01\x01", "face", "data")));
    EXPECT_THAT(Receivers(), ElementsAre(1, 1));
}

TEST_F(ReceiveTest, FrameWithoutClientsIsAccepted) {
    Register(1);
    EXPECT_EQ(0, Receive(ServerFrameBytes("", "face", "data")));
    EXPECT_THAT(Receivers(), IsEmpty());
    EXPECT_EQ("Out\n", mLog.Texts(0).back());
}

TEST_F(ReceiveTest, FirstClientWithoutACallbackEndsTheDelivery) {
    NewClients(4);
    Register(5);
    mLog.Clear();
    EXPECT_EQ(-1, Receive(ServerFrameBytes("\x03\x05", "face", "data")));
    ExpectOnlyError("ClientID : 3 has no Register Event Callback!!\n");
    EXPECT_THAT(Receivers(), IsEmpty());
}

TEST_F(ReceiveTest, ClientsBeforeTheOneWithoutACallbackGetTheirEvents) {
    NewClients(4);
    Register(3);
    mLog.Clear();
    EXPECT_EQ(-1, Receive(ServerFrameBytes("\x03\x05", "face", "data")));
    ExpectOnlyError("ClientID : 5 has no Register Event Callback!!\n");
    EXPECT_THAT(Receivers(), ElementsAre(3));
}

TEST_F(ReceiveTest, CallbackRunsInsideACallbackScope) {
    Register(1);
    bool inside = false;
    DuringNextEvent([&] { inside = lumora::CallbackScope::Inside(lumora::Side::CLIENT); });
    EXPECT_EQ(0, Receive(ServerFrameBytes("\x01", "face", "data")));
    EXPECT_TRUE(inside);
    EXPECT_FALSE(lumora::CallbackScope::Inside(lumora::Side::CLIENT));
}

TEST_F(ReceiveTest, OtherThreadsMaySendWhileACallbackRuns) {
    Register(1);
    const auto transport = std::make_shared<ScriptedTransport>();
    transport->reportedWritten = 6 + 4;
    ClientModuleProbe::SetTransport(*mModule, mCamera, transport);
    int sent = -1;
    DuringNextEvent([&] { std::thread([&] { sent = SendData(1, mCamera, "ping"); }).join(); });
    EXPECT_EQ(0, Receive(ServerFrameBytes("\x01", "face", "data")));
    EXPECT_EQ(0, sent);
}

TEST_F(ReceiveTest, ClientEndsOnlyAfterItsCallbackInProgress) {
    NewClients(1);
    Register(2);
    std::atomic<bool> returned{false};
    bool waited = false;
    std::thread removal;
    DuringNextEvent([&] {
        removal = std::thread([&] {
            EXPECT_EQ(0, RemoveClient(2));
            waited = returned;
        });
        std::this_thread::sleep_for(
            std::chrono::milliseconds(20));  // enough for a removal that does not wait
        returned = true;
    });
    EXPECT_EQ(0, Receive(ServerFrameBytes("\x02", "face", "data")));
    removal.join();
    EXPECT_TRUE(waited);
}

int FailingCallback(LUM_DEVICE_EVENT_S event) {
    FirstCallback(event);
    return -1;
}

TEST_F(ReceiveTest, ResultOfACallbackIsIgnored) {
    NewClients(1);
    EXPECT_EQ(0, mModule->RegisterAiDeviceEvent(1, mCamera, FailingCallback));
    Register(2);
    EXPECT_EQ(0, Receive(ServerFrameBytes("\x01\x02", "face", "data")));
    EXPECT_THAT(Receivers(), ElementsAre(1, 2));
}

// ---- What is refused, in this order ----

TEST_F(ReceiveTest, NoFrameIsRefused) {
    EXPECT_EQ(-1, mModule->OnRecvData(nullptr, 20));
    EXPECT_THAT(mLog.Texts(0), ElementsAre("Enter\n"));
    ExpectOnlyError("input param is invalid!\n");
}

TEST_F(ReceiveTest, FrameOfNoLengthIsRefused) {
    EXPECT_EQ(-1, Receive(ServerFrameBytes("\x01", "face", "data"), 0));
    ExpectOnlyError("input param is invalid!\n");
}

// Each is wrong in what a later check looks at, too.
TEST_F(ReceiveTest, FramesAreRefusedForTheFirstFault) {
    Register(1);
    const struct {
        Bytes frame;
        std::string text;
    } refusals[] = {
        {Frame(7, 1024001, Byte(21) + Byte(0) + "xx"), "data length is too short!\n"},
        {Frame(7, 1024001, Byte(21) + Bytes(30, '\0')), "payloadLen= 1024001,illegal.\n"},
        {Frame(7, 0xffffffffU, Byte(0) + Bytes(30, '\0')), "payloadLen= -1,illegal.\n"},
        {Frame(28 + 41, 4, Byte(21) + Bytes(21, '\x01') + Byte(41) + Bytes(41, 'n') + "data"),
         "clientNum:21 exceed the max value!\n"},
        {ServerFrameBytes("\x11", Bytes(41, 'n'), "data"), "NameLen exceed the max value!\n"},
        {Frame(101, 1024000, Byte(1) + Byte(1) + Byte(4) + "facedata"),
         "payloadLen = 1024000 reaches beyond the frame.\n"},
        {ServerFrameBytes("\xff", "face", "data"), "ClientID : 255 has no Register Event Callback!!\n"},
    };
    for (const auto& refusal : refusals) {
        mLog.Clear();
        EXPECT_EQ(-1, Receive(refusal.frame));
        ExpectOnlyError(refusal.text);
        EXPECT_FALSE(mLog.Has(1, "payloadLen = 4 , clientNum = 1 , serviceNameLen = 41\n"));
        EXPECT_THAT(Receivers(), IsEmpty());
    }
}

TEST_F(ReceiveTest, FrameOfTenBytesIsAccepted) {
    Register(1);
    EXPECT_EQ(0, Receive(ServerFrameBytes("\x01", "f", "d")));
    EXPECT_EQ(10U, mBuffer.size() - SPARE);
    EXPECT_THAT(ReceivedPayloads(), ElementsAre("d"));
}

TEST_F(ReceiveTest, PayloadOf1024000IsAccepted) {
    Register(1);
    const Bytes payload(1024000, 'p');
    EXPECT_EQ(0, Receive(ServerFrameBytes("\x01", "face", payload)));
    ASSERT_EQ(1U, ReceivedPayloads().size());
    EXPECT_TRUE(payload == ReceivedPayloads()[0]);
}

TEST_F(ReceiveTest, TwentyClientsAndALongNameAreAccepted) {
    NewClients(19);
    Bytes ids;
    for (int id = 1; id <= 20; ++id) {
        Register(id);
        ids += Byte(id);
    }
    EXPECT_EQ(0, Receive(ServerFrameBytes(ids, Bytes(39, 'n'), "data")));
    EXPECT_EQ(20U, ReceivedEvents().size());
    EXPECT_EQ(20, Receivers().back());
}

TEST_F(ReceiveTest, NameOf39IsDelivered) {
    Register(1);
    EXPECT_EQ(0, Receive(ServerFrameBytes("\x01", Bytes(39, 'n'), "data")));
    EXPECT_EQ(Bytes(39, 'n'), ReceivedEvents().at(0).event.serviceName);
}

TEST_F(ReceiveTest, NameOf40IsRefusedByTheCopy) {
    Register(1);
    mLog.Clear();
    EXPECT_EQ(-1, Receive(ServerFrameBytes("\x01", Bytes(40, 'n'), "data")));
    ExpectOnlyError("strncpy_s failed\n");
    EXPECT_TRUE(mLog.Has(1, "payloadLen = 4 , clientNum = 1 , serviceNameLen = 40\n"));
    EXPECT_THAT(Receivers(), IsEmpty());
}

TEST_F(ReceiveTest, NameOf40WithoutClientsIsAccepted) {
    EXPECT_EQ(0, Receive(ServerFrameBytes("", Bytes(40, 'n'), "data")));
}

TEST_F(ReceiveTest, EmptyNameIsDelivered) {
    Register(1);
    EXPECT_EQ(0, Receive(ServerFrameBytes("\x01", "", "data")));
    EXPECT_STREQ("", ReceivedEvents().at(0).event.serviceName);
    EXPECT_THAT(ReceivedPayloads(), ElementsAre("data"));
}

TEST_F(ReceiveTest, FailedNameCopyEndsTheDelivery) {
    NewClients(1);
    Register(1);
    Register(2);
    mLog.Clear();
    FailBoundedCall(Bounded::STRNCPY, 2);
    EXPECT_EQ(-1, Receive(ServerFrameBytes("\x01\x02", "face", "data")));
    ExpectOnlyError("strncpy_s failed\n");
    EXPECT_THAT(Receivers(), ElementsAre(1));
}

// ---- Fields that do not fit together ----

TEST_F(ReceiveTest, HeadLengthIsNotUsed) {
    Register(1);
    for (const int headLen : {0, 5, 12, 100, 255}) {
        EXPECT_EQ(0, Receive(Frame(static_cast<unsigned int>(headLen), 4,
                                   Byte(1) + "\x01\x04"
                                             "facedata")));
    }
    EXPECT_THAT(ReceivedPayloads(), ElementsAre("data", "data", "data", "data", "data"));
}

TEST_F(ReceiveTest, FieldsThatLeadBehindTheFrameReadTheSpareZeros) {
    Register(1);
    mLog.Clear();
    // 20 clients are promised, one ID is there: the next one read is 0.
    EXPECT_EQ(-1, Receive(Frame(10, 0, Byte(20) + Bytes(4, '\x01'))));
    ExpectOnlyError("ClientID : 0 has no Register Event Callback!!\n");
    EXPECT_THAT(Receivers(), ElementsAre(1, 1, 1, 1));
}

TEST_F(ReceiveTest, NameThatLeadsBehindTheFrameEndsWithTheSpareZeros) {
    Register(1);
    EXPECT_EQ(0, Receive(Frame(10, 0, Byte(1) + Byte(1) + Byte(39) + "ab")));
    EXPECT_STREQ("ab", ReceivedEvents().at(0).event.serviceName);
    EXPECT_THAT(ReceivedPayloads(), ElementsAre(""));
}

// ---- Over the wire ----

TEST_F(ReceiveTest, FramesAreDeliveredInTheOrderSent) {
    Register(1);
    Connect(1, mCamera);
    mToClient.Send(ServerFrameBytes("\x01", "face", "one") + ServerFrameBytes("\x01", "face", "two") +
                   ServerFrameBytes("\x01", "face", "three"));
    ASSERT_TRUE(Eventually([] { return ReceivedPayloads().size() == 3; }));
    EXPECT_THAT(ReceivedPayloads(), ElementsAre("one", "two", "three"));
}

TEST_F(ReceiveTest, FrameThatArrivesByteByByteIsDeliveredOnce) {
    Register(1);
    Connect(1, mCamera);
    mToClient.SendInPieces(
        ServerFrameBytes("\x01", "face", "first") + ServerFrameBytes("\x01", "face", "second"), 1);
    ASSERT_TRUE(Eventually([] { return ReceivedPayloads().size() == 2; }));
    EXPECT_THAT(ReceivedPayloads(), ElementsAre("first", "second"));
}

TEST_F(ReceiveTest, LargestFrameArrivesWhole) {
    Register(1);
    Connect(1, mCamera);
    const Bytes payload(1024000, 'L');
    mToClient.Send(ServerFrameBytes("\x01", "face", payload) + ServerFrameBytes("\x01", "face", "next"));
    ASSERT_TRUE(Eventually([] { return ReceivedPayloads().size() == 2; }));
    EXPECT_TRUE(payload == ReceivedPayloads()[0]);
    EXPECT_EQ("next", ReceivedPayloads()[1]);
}

TEST_F(ReceiveTest, RefusedFrameDoesNotEndTheConnection) {
    Register(1);
    Connect(1, mCamera);
    mToClient.Send(ServerFrameBytes("\x11", "face", "for no client") +
                   ServerFrameBytes("\x01", "face", "data"));
    ASSERT_TRUE(Eventually([] { return ReceivedPayloads().size() == 1; }));
    EXPECT_THAT(ReceivedPayloads(), ElementsAre("data"));
    EXPECT_TRUE(mLog.Has(4, "ClientID : 17 has no Register Event Callback!!\n"));
}

TEST_F(ReceiveTest, LyingFrameOverTheWireFindsZerosBehindItself) {
    Register(1);
    Connect(1, mCamera);
    mToClient.Send(ServerFrameBytes("\x01", "face", Bytes(200, 'f')));
    ASSERT_TRUE(Eventually([] { return ReceivedEvents().size() == 1; }));
    mToClient.Send(Frame(10, 1, Byte(1) + Byte(1) + Byte(39) + "abc"));
    ASSERT_TRUE(Eventually([] { return ReceivedEvents().size() == 2; }));
    EXPECT_STREQ("abc", ReceivedEvents()[1].event.serviceName);
    EXPECT_EQ(Byte(0), ReceivedPayloads()[1]);
}

// The second head is illegal, so it is cut at the first one's length, whatever length it claims itself.
TEST_F(ReceiveTest, FrameOverTheWireThatClaimsMoreThanWasCutIsRefused) {
    Register(1);
    Connect(1, mCamera);
    const Bytes frame = ServerFrameBytes("\x01", "face", "data");
    Bytes lying = frame;
    lying[0] = 101;
    lying.replace(1, 4, LittleEndian32(1024000));
    mToClient.Send(frame + lying);
    ASSERT_TRUE(mLog.WaitFor(4, "payloadLen = 1024000 reaches beyond the frame.\n"));
    EXPECT_THAT(ReceivedPayloads(), ElementsAre("data"));
}

}  // namespace
}  // namespace lumoraAiModule
