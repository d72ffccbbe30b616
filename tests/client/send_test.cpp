// SendCmd and SendData: the text and the bytes that leave, and everything that is refused.
#include <cerrno>
#include <cstring>
#include <thread>
#include <utility>

#include "tests/client/client_fixture.h"
#include "tests/support/system_faults.h"

namespace lumoraAiModule {
namespace {

using lumora_test::ClientFrame;
using lumora_test::SystemCall;
using testing::ElementsAre;
using testing::IsEmpty;

class SendTest : public ChannelTest {
protected:
    int Command(unsigned int handle, const char* cmd, const char* param, int clientID = 1) {
        return mModule->SendCmd(clientID, handle, cmd, param);
    }
};

using SendCmdTest = SendTest;

TEST_F(SendCmdTest, CommandAndParameterTravelAsADocument) {
    const unsigned int camera = ConnectToCamera();
    EXPECT_EQ(0, Command(camera, "SetMode", "night"));
    EXPECT_THAT(Asked(),
                ElementsAre(R"(camera Post Command {"ClientID":1,"cmd":"SetMode","param":"night"})"));
    EXPECT_THAT(mLog.Texts(0), ElementsAre("client [1] Enter\n", "Out\n"));
    EXPECT_THAT(mLog.Texts(4), IsEmpty());
}

TEST_F(SendCmdTest, EmptyParameterTravelsToo) {
    EXPECT_EQ(0, Command(ConnectToCamera(), "Hello", ""));
    EXPECT_THAT(Asked(), ElementsAre(R"(camera Post Command {"ClientID":1,"cmd":"Hello","param":""})"));
}

TEST_F(SendCmdTest, EachClientSendsItsOwnId) {
    NewClients(2);
    const unsigned int camera = ConnectToCamera();
    EXPECT_EQ(0, TryToConnect(3, camera));
    ForgetAsked();
    EXPECT_EQ(0, Command(camera, "Hello", "", 3));
    EXPECT_THAT(Asked(), ElementsAre(R"(camera Post Command {"ClientID":3,"cmd":"Hello","param":""})"));
}

TEST_F(SendCmdTest, SubscriptionTravelsAsAnObject) {
    const unsigned int camera = ConnectToCamera();
    LUM_SUBSCRIBE_SERVICE_S subscription = {};
    std::strcpy(subscription.serviceName, "faceDetect");
    subscription.transport = 1;
    EXPECT_EQ(0, Command(camera, "subscribe", reinterpret_cast<const char*>(&subscription)));
    EXPECT_THAT(Asked(), ElementsAre(R"(camera Post Command {"ClientID":1,"cmd":"subscribe",)"
                                     R"("subscribe":{"Service":"faceDetect","DataSource":0,"TrasType":1}})"));
}

TEST_F(SendCmdTest, CancellationTravelsAsAPlainParameter) {
    EXPECT_EQ(0, Command(ConnectToCamera(), "unsubscribe", "faceDetect"));
    EXPECT_THAT(
        Asked(),
        ElementsAre(R"(camera Post Command {"ClientID":1,"cmd":"unsubscribe","param":"faceDetect"})"));
}

TEST_F(SendCmdTest, SubscriptionThatIsNotValidIsNotSent) {
    const unsigned int camera = ConnectToCamera();
    const LUM_SUBSCRIBE_SERVICE_S subscription = {};
    EXPECT_EQ(-1, Command(camera, "subscribe", reinterpret_cast<const char*>(&subscription)));
    EXPECT_THAT(mLog.Texts(4),
                ElementsAre("ERROR:subscribe serviceName length illegal.\n", "GetJsonCmd failed!\n"));
    EXPECT_THAT(Asked(), IsEmpty());
}

TEST_F(SendCmdTest, ClientWithAnIdButNoRecordIsRefused) {
    const unsigned int camera = ConnectToCamera();
    const int second = TakeId();
    mLog.Clear();
    EXPECT_EQ(-1, Command(camera, "Hello", "", second));
    ExpectOnlyError("ClientID : 2 no resource!!\n");
}

TEST_F(SendCmdTest, ClientThatIsNotConnectedToTheHandleIsRefused) {
    const unsigned int camera = ConnectToCamera();
    const unsigned int reader = Reader();
    mLog.Clear();
    EXPECT_EQ(-1, Command(reader, "Hello", ""));
    ExpectOnlyError("This client did't connect on handle: 2!\n");
    EXPECT_THAT(Asked(), IsEmpty());
    EXPECT_EQ(0, Command(camera, "Hello", ""));
}

TEST_F(SendCmdTest, DevicesRefusalIsLoggedInHexadecimal) {
    const unsigned int camera = ConnectToCamera();
    mResults["Command"] = 0x2a;
    EXPECT_EQ(-1, Command(camera, "Hello", ""));
    ExpectOnlyError("Post command ERROR ! ret = 0x2a\n");
}

TEST_F(SendCmdTest, CommandIsSentWithoutTheModulesLock) {
    const unsigned int camera = ConnectToCamera();
    bool locked = true;
    mDuring["Command"] = [&] { locked = ClientModuleProbe::IsLocked(*mModule); };
    EXPECT_EQ(0, Command(camera, "Hello", ""));
    EXPECT_FALSE(locked);
}

// ---- SendData ----

// A refused call leaves the count alone, one that fails while it builds or sends the frame reports 0.
constexpr unsigned int UNTOUCHED = 99;

class SendDataTest : public SendTest {
protected:
    // Sends whatever the record says.
    int SendRaw(const void* data, unsigned int length, unsigned int handle, int clientID = 1) {
        SendDataInfo info(data, length, 1000);
        return mModule->SendData(clientID, handle, info, mSent);
    }
    void ExpectNothingSent(unsigned int handle) {
        EXPECT_EQ(0U, mSent);
        ASSERT_EQ(0, SendData(1, handle, "after"));
        EXPECT_EQ(ClientFrame(1, "after"), mFromClient.Receive(11)) << "bytes of the refused frame went out";
    }
};

TEST_F(SendDataTest, HundredBytesTravelInAFrameOf106) {
    const unsigned int camera = ConnectToCamera();
    const Bytes payload(100, 'p');
    EXPECT_EQ(0, SendData(1, camera, payload));
    EXPECT_EQ(100U, mSent);
    EXPECT_EQ(Bytes("\x06\x64\0\0\0\x01", 6) + payload, mFromClient.Receive(106));
    EXPECT_TRUE(mLog.Has(1, "headLen = 6, payloadLen = 100\n"));
    EXPECT_TRUE(mLog.Has(1, "write length = 106.\n"));
    EXPECT_THAT(mLog.Texts(0), ElementsAre("client [1] Enter\n", "Out\n"));
}

TEST_F(SendDataTest, LengthIsLittleEndianAndPayloadUnchanged) {
    const unsigned int camera = ConnectToCamera();
    Bytes payload;
    for (int i = 0; i < 0x010203; ++i) {
        payload += static_cast<char>(i);
    }
    std::thread sender([&] { EXPECT_EQ(0, SendData(1, camera, payload)); });
    EXPECT_EQ(Bytes("\x06\x03\x02\x01\0\x01", 6), mFromClient.Receive(6));
    EXPECT_EQ(payload, mFromClient.Receive(payload.size()));
    sender.join();
    EXPECT_EQ(0x010203U, mSent);
}

TEST_F(SendDataTest, FiveMebibytesTravelInOneFrame) {
    const unsigned int camera = ConnectToCamera();
    const Bytes payload(5242880, 'm');
    std::thread sender([&] { EXPECT_EQ(0, SendData(1, camera, payload)); });
    EXPECT_EQ(Bytes("\x06\0\0\x50\0\x01", 6), mFromClient.Receive(6));
    EXPECT_TRUE(payload == mFromClient.Receive(payload.size()));
    sender.join();
    EXPECT_EQ(5242880U, mSent);
}

TEST_F(SendDataTest, EmptyPayloadTravelsInAFrameOfSix) {
    const unsigned int camera = ConnectToCamera();
    EXPECT_EQ(0, SendRaw("", 0, camera));
    EXPECT_EQ(0U, mSent);
    EXPECT_EQ(Bytes("\x06\0\0\0\0\x01", 6), mFromClient.Receive(6));
}

TEST_F(SendDataTest, FrameCarriesTheSendersId) {
    NewClients(19);
    const unsigned int camera = ConnectToCamera();
    EXPECT_EQ(0, SendData(20, camera, "x"));
    EXPECT_EQ(ClientFrame(20, "x"), mFromClient.Receive(7));
}

TEST_F(SendDataTest, ClientNeedNotBeConnected) {
    NewClients(1);
    const unsigned int camera = ConnectToCamera();
    EXPECT_EQ(0, SendData(2, camera, "x"));
    EXPECT_EQ(1U, mSent);
    EXPECT_EQ(ClientFrame(2, "x"), mFromClient.Receive(7));
}

TEST_F(SendDataTest, ClientNeedsAnIdButNoRecord) {
    const unsigned int camera = ConnectToCamera();
    EXPECT_EQ(0, SendData(TakeId(), camera, "x"));
}

TEST_F(SendDataTest, LackOfMemoryForTheFrame) {
    const unsigned int camera = ConnectToCamera();
    lumora_test::FailAllocation();
    EXPECT_EQ(-1, SendRaw("x", 1, camera));
    lumora_test::ResetAllocationFaults();
    ExpectOnlyError("dataBuff memory malloc error\n");
    ExpectNothingSent(camera);
}

TEST_F(SendDataTest, LengthThatNoFrameCanHoldIsLackOfMemory) {
    const unsigned int camera = ConnectToCamera();
    for (const unsigned int length : {0xffffffffU, 0xfffffffaU}) {
        mLog.Clear();
        EXPECT_EQ(-1, SendRaw("x", length, camera));
        ExpectOnlyError("dataBuff memory malloc error\n");
    }
    ExpectNothingSent(camera);
}

TEST_F(SendDataTest, PayloadFrom64KibOnIsNotCopied) {
    const unsigned int camera = ConnectToCamera();
    const Bytes payload(65536, 'x');
    FailBoundedCall(Bounded::MEMCPY);
    EXPECT_EQ(0, SendRaw(payload.data(), 65536, camera));
    EXPECT_EQ(-1, SendRaw(payload.data(), 65535, camera));
    EXPECT_EQ("memcpy_s failed\n", mLog.Texts(1).back());
}

TEST_F(SendDataTest, FailedClearingOfTheFrame) {
    const unsigned int camera = ConnectToCamera();
    FailBoundedCall(Bounded::MEMSET);
    EXPECT_EQ(-1, SendData(1, camera, "x"));
    ExpectOnlyError("memset_s failed\n");
    ExpectNothingSent(camera);
}

TEST_F(SendDataTest, FailedCopyOfThePayload) {
    const unsigned int camera = ConnectToCamera();
    FailBoundedCall(Bounded::MEMCPY);
    EXPECT_EQ(-1, SendData(1, camera, "x"));
    EXPECT_EQ("memcpy_s failed\n", mLog.Texts(1).back());
    EXPECT_THAT(mLog.Texts(4), IsEmpty());
    ExpectNothingSent(camera);
}

TEST_F(SendDataTest, BrokenWriteFailsAndLaterOnesFindNoChannel) {
    const unsigned int camera = ConnectToCamera();
    lumora_test::FailSystemCall(SystemCall::SEND, ECONNRESET);
    EXPECT_EQ(-1, SendData(1, camera, "x"));
    EXPECT_EQ(0U, mSent);
    EXPECT_THAT(mLog.Texts(4),
                ElementsAre("write failed error: Connection reset by peer(errno: 104), will stop transport\n",
                            "SendData failed!\n"));
    EXPECT_EQ("ERROR Out\n", mLog.Texts(0).back());
    mLog.Clear();
    mSent = 99;
    EXPECT_EQ(-1, SendData(1, camera, "x"));
    EXPECT_EQ(0U, mSent);
    EXPECT_THAT(mLog.Texts(4),
                ElementsAre("No transport channel created, please connect first.\n", "SendData failed!\n"));
}

TEST_F(SendDataTest, DeviceThatStopsReadingMakesTheCountShortAndTheNextCallFail) {
    const unsigned int camera = ConnectToCamera();
    const Bytes payload(5242880, 's');  // more than the socket buffers hold
    EXPECT_EQ(0, SendData(1, camera, payload));
    EXPECT_LT(0U, mSent);
    EXPECT_GT(5242880U, mSent);
    const unsigned int shortCount = mSent;
    EXPECT_EQ(1, mLog.Count(4, "SendData timeout: Resource temporarily unavailable(errno: 11)\n"));
    EXPECT_EQ(shortCount + 6, mFromClient.Receive(shortCount + 6).size());
    EXPECT_TRUE(mFromClient.SeesEnd()) << "more bytes went out than the caller was told";
    mLog.Clear();
    EXPECT_EQ(-1, SendData(1, camera, "x"));
    EXPECT_EQ(0U, mSent);
    EXPECT_THAT(mLog.Texts(4),
                ElementsAre("No transport channel created, please connect first.\n", "SendData failed!\n"));
}

TEST_F(SendDataTest, TransportGetsTheWholeFrameAndTheCallersTimeOut) {
    const unsigned int camera = Camera();
    const auto transport = std::make_shared<ScriptedTransport>();
    transport->reportedWritten = 11;
    ClientModuleProbe::SetTransport(*mModule, camera, transport);
    SendDataInfo info("hello", 5, 1234);
    EXPECT_EQ(0, mModule->SendData(1, camera, info, mSent));
    EXPECT_EQ(ClientFrame(1, "hello"), transport->frame);
    EXPECT_EQ(1234U, transport->usedTimeout);
    EXPECT_EQ(5U, mSent);
}

TEST_F(SendDataTest, OnlyPayloadBytesCount) {
    const unsigned int camera = Camera();
    const auto transport = std::make_shared<ScriptedTransport>();
    ClientModuleProbe::SetTransport(*mModule, camera, transport);
    const std::pair<unsigned int, unsigned int> counts[] = {{0, 0}, {1, 0}, {5, 0}, {6, 0}, {7, 1}, {10, 4}};
    for (const auto& [written, reported] : counts) {
        transport->reportedWritten = written;
        EXPECT_EQ(0, SendData(1, camera, "hello"));
        EXPECT_EQ(reported, mSent) << written << " bytes went out";
    }
}

TEST_F(SendDataTest, FailedSendReportsNothingWhateverWentOut) {
    const unsigned int camera = Camera();
    const auto transport = std::make_shared<ScriptedTransport>();
    transport->reportedWritten = 9;
    transport->sendResult = 1;
    ClientModuleProbe::SetTransport(*mModule, camera, transport);
    mLog.Clear();
    EXPECT_EQ(-1, SendData(1, camera, "hello"));
    EXPECT_EQ(0U, mSent);
    ExpectOnlyError("SendData failed!\n");
}

TEST_F(SendDataTest, CountIsNotBelowZeroWhenNotEvenTheHeadWentOut) {
    const unsigned int camera = ConnectToCamera();
    lumora_test::FailSystemCall(SystemCall::SEND, EAGAIN, lumora_test::ALWAYS);
    EXPECT_EQ(0, SendData(1, camera, "hello"));
    EXPECT_EQ(0U, mSent);
}

}  // namespace
}  // namespace lumoraAiModule
