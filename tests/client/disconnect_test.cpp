// DisconnectAiDevice, RegisterAiDeviceEvent, DestoryTransport and the version queries.
#include "tests/client/client_fixture.h"
#include "tests/support/eventually.h"

namespace lumoraAiModule {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

// Makes the search find the reader only: the camera's handle stays.
class LostDeviceTest : public ChannelTest {
protected:
    void LoseTheCamera() {
        mPlatform.devices = {Device("reader", 5684)};
        EXPECT_EQ(0, Search());
        ForgetAsked();
        mLog.Clear();
    }
};

using DisconnectTest = LostDeviceTest;

TEST_F(DisconnectTest, ClientLeavesAndNothingIsSent) {
    const unsigned int camera = Camera();
    Connect(1, camera);
    ForgetAsked();
    mLog.Clear();
    EXPECT_EQ(0, mModule->DisconnectAiDevice(1, camera));
    EXPECT_THAT(Asked(), IsEmpty());
    EXPECT_THAT(mLog.Texts(0), ElementsAre("client [1] Enter\n", "Out\n"));
    EXPECT_THAT(mLog.Texts(1), ElementsAre("DisconnectAiDevice handle = 1 !\n"));
    EXPECT_FALSE(IsConnected(1, camera));
}

TEST_F(DisconnectTest, TransportKeepsRunningForTheHandle) {
    const unsigned int camera = Camera();
    Connect(1, camera);
    EXPECT_EQ(0, mModule->DisconnectAiDevice(1, camera));
    EXPECT_EQ(0, SendData(1, camera, "x"));
    EXPECT_EQ(lumora_test::ClientFrame(1, "x"), mFromClient.Receive(7));
    ForgetAsked();
    EXPECT_EQ(0, TryToConnect(1, camera));
    EXPECT_THAT(Asked(), ElementsAre("camera Post Connect 1"));
}

TEST_F(DisconnectTest, HandleIsOnlyCheckedForExistence) {
    const unsigned int camera = Camera();
    const unsigned int reader = Reader();
    Connect(1, camera);
    EXPECT_EQ(0, mModule->DisconnectAiDevice(1, reader));
    EXPECT_FALSE(IsConnected(1, camera));
}

TEST_F(DisconnectTest, HandleSufficesWithoutItsDevice) {
    const unsigned int camera = Camera();
    Connect(1, camera);
    LoseTheCamera();
    EXPECT_EQ(0, mModule->DisconnectAiDevice(1, camera));
}

TEST_F(DisconnectTest, ClientThatIsNotConnectedCannotLeave) {
    const unsigned int camera = Camera();
    Connect(1, camera);
    EXPECT_EQ(0, mModule->DisconnectAiDevice(1, camera));
    mLog.Clear();
    EXPECT_EQ(-1, mModule->DisconnectAiDevice(1, camera));
    ExpectOnlyError("This client connect no handle!\n");
}

TEST_F(DisconnectTest, OtherClientsStayConnected) {
    NewClients(1);
    const unsigned int camera = Camera();
    Connect(1, camera);
    EXPECT_EQ(0, TryToConnect(2, camera));
    EXPECT_EQ(0, mModule->DisconnectAiDevice(1, camera));
    EXPECT_TRUE(IsConnected(2, camera));
}

// ---- RegisterAiDeviceEvent ----

class RegisterAiDeviceEventTest : public ChannelTest {
protected:
    // The callback that a frame for the client reaches.
    std::string CallbackOf(char clientID) {
        Bytes frame = lumora_test::ServerFrameBytes(Bytes(1, clientID), "face", "data") + Bytes(67, '\0');
        mModule->OnRecvData(&frame[0], 19);
        return ReceivedEvents().empty() ? "" : ReceivedEvents().back().callback;
    }
};

TEST_F(RegisterAiDeviceEventTest, FirstCallbackWins) {
    const unsigned int camera = Camera();
    mLog.Clear();
    EXPECT_EQ(0, mModule->RegisterAiDeviceEvent(1, camera, FirstCallback));
    EXPECT_THAT(mLog.Texts(0), ElementsAre("client [1] Enter\n", "Out\n"));
    EXPECT_EQ(0, mModule->RegisterAiDeviceEvent(1, camera, SecondCallback));
    EXPECT_EQ(0, mModule->RegisterAiDeviceEvent(1, Reader(), SecondCallback));
    EXPECT_EQ("first", CallbackOf(1));
}

TEST_F(RegisterAiDeviceEventTest, CallbackEndsWithItsClient) {
    NewClients(1);
    const unsigned int camera = Camera();
    EXPECT_EQ(0, mModule->RegisterAiDeviceEvent(2, camera, FirstCallback));
    EXPECT_EQ(0, RemoveClient(2));
    EXPECT_EQ(2, NewClient());
    EXPECT_EQ("", CallbackOf(2));
    EXPECT_EQ(0, mModule->RegisterAiDeviceEvent(2, camera, SecondCallback));
    EXPECT_EQ("second", CallbackOf(2));
}

TEST_F(RegisterAiDeviceEventTest, ClientNeedNotBeConnected) {
    RegisterEvents(1, Camera());
    EXPECT_EQ("first", CallbackOf(1));
}

// ---- DestoryTransport ----

class DestoryTransportTest : public LostDeviceTest {
protected:
    unsigned int ConnectToCamera() {
        const unsigned int camera = Camera();
        Connect(1, camera);
        mReplies["TransStatus"] = "free";
        ForgetAsked();
        mLog.Clear();
        return camera;
    }
};

TEST_F(DestoryTransportTest, HandleWithoutATransportIsRefused) {
    EXPECT_EQ(-1, mModule->DestoryTransport(NO_HANDLE));
    EXPECT_THAT(mLog.Texts(0), ElementsAre("Enter\n"));
    ExpectOnlyError("This Handle no transport.\n");
}

TEST_F(DestoryTransportTest, FreeDeviceIsToldToStop) {
    const unsigned int camera = ConnectToCamera();
    EXPECT_EQ(0, mModule->DestoryTransport(camera));
    EXPECT_THAT(Asked(), ElementsAre("camera Get TransStatus ", "camera Put StopTransport "));
    EXPECT_EQ("Out\n", mLog.Texts(0).back());
    EXPECT_THAT(mLog.Texts(1), ElementsAre("LumoraClientModule will DestoryTransport\n"));
    EXPECT_TRUE(mFromClient.SeesEnd());
    mLog.Clear();
    EXPECT_EQ(-1, mModule->DestoryTransport(camera));
    ExpectOnlyError("This Handle no transport.\n");
}

TEST_F(DestoryTransportTest, BusyDeviceIsAskedUntilItIsFree) {
    const unsigned int camera = ConnectToCamera();
    const std::vector<std::string> replies = {"busy", "", "Free", "freed", "free"};
    std::size_t next = 0;
    mDuring["TransStatus"] = [&] { mReplies["TransStatus"] = replies.at(next++); };
    EXPECT_EQ(0, mModule->DestoryTransport(camera));
    EXPECT_EQ(5U, next);
    EXPECT_EQ(4, mLog.Count(1, "Remote transport is busy, wait...\n"));
    EXPECT_EQ("camera Put StopTransport ", Asked().back());
}

TEST_F(DestoryTransportTest, PollHasNoUpperBound) {
    const unsigned int camera = ConnectToCamera();
    int polls = 0;
    mDuring["TransStatus"] = [&] { mReplies["TransStatus"] = ++polls < 600 ? "busy" : "free"; };
    EXPECT_EQ(0, mModule->DestoryTransport(camera));
    EXPECT_EQ(600, polls);
}

TEST_F(DestoryTransportTest, FailedPollKeepsTheTransportWithItsHandle) {
    const unsigned int camera = ConnectToCamera();
    mResults["TransStatus"] = -1;
    EXPECT_EQ(-1, mModule->DestoryTransport(camera));
    ExpectOnlyError("Get cmd fail\n");
    EXPECT_THAT(Asked(), ElementsAre("camera Get TransStatus "));
    mResults.clear();
    EXPECT_EQ(0, mModule->DestoryTransport(camera));
}

TEST_F(DestoryTransportTest, RefusedStopKeepsTheTransportWithItsHandle) {
    const unsigned int camera = ConnectToCamera();
    mResults["StopTransport"] = -1;
    EXPECT_EQ(-1, mModule->DestoryTransport(camera));
    EXPECT_EQ("Put cmd fail!\n", mLog.Texts(1).back());
    EXPECT_THAT(mLog.Texts(4), IsEmpty());
    mResults.clear();
    EXPECT_EQ(0, mModule->DestoryTransport(camera));
}

TEST_F(DestoryTransportTest, DeviceThatWasNotFoundAgainCannotBeAsked) {
    const unsigned int camera = ConnectToCamera();
    LoseTheCamera();
    EXPECT_EQ(-1, mModule->DestoryTransport(camera));
    ExpectOnlyError("Handle error, no such handle!\n");
    EXPECT_TRUE(mFromClient.SeesEnd()) << "the sending half was closed before that";
}

TEST_F(DestoryTransportTest, TransportThatCannotBeDestroyedFailsBeforeTheDeviceIsAsked) {
    const auto transport = std::make_shared<ScriptedTransport>();
    transport->destroyResult = 1;
    ClientModuleProbe::SetTransport(*mModule, NO_HANDLE, transport);
    EXPECT_EQ(-1, mModule->DestoryTransport(NO_HANDLE));
    ExpectOnlyError("DestoryTransports!\n");
}

TEST_F(DestoryTransportTest, TransportOfAHandleThatIsGoneCannotBeFinished) {
    const auto transport = std::make_shared<ScriptedTransport>();
    ClientModuleProbe::SetTransport(*mModule, NO_HANDLE, transport);
    EXPECT_EQ(-1, mModule->DestoryTransport(NO_HANDLE));
    ExpectOnlyError("Handle error: 4711, no such device!\n");
    EXPECT_EQ(1, transport->destroyed);
    EXPECT_EQ(-1, mModule->DestoryTransport(NO_HANDLE));
    EXPECT_EQ(2, transport->destroyed) << "it stays with its handle";
}

TEST_F(DestoryTransportTest, TransportIsReplacedByTheNextConnection) {
    const unsigned int camera = ConnectToCamera();
    EXPECT_EQ(0, mModule->DestoryTransport(camera));
    EXPECT_EQ(0, mModule->DisconnectAiDevice(1, camera));
    Connect(1, camera);
    EXPECT_EQ(0, SendData(1, camera, "x"));
    EXPECT_EQ(lumora_test::ClientFrame(1, "x"), mFromClient.Receive(7));
}

// ---- Versions ----

using VersionQueryTest = LostDeviceTest;

TEST_F(VersionQueryTest, ClientsVersionIsTheLibrarys) {
    std::string version = "before";
    EXPECT_EQ(0, mModule->GetClientVersion(1, version));
    EXPECT_EQ("1.1.1", version);
    EXPECT_THAT(mLog.Texts(0), ElementsAre("client [1] Enter\n", "client [1] OUT.\n"));
}

TEST_F(VersionQueryTest, VersionThatCannotBeToldFailsTheQuery) {
    ClientSources sources;
    sources.getVersion = [](std::string&) { return -1; };
    mModule = std::make_shared<LumoraClientModule>("phone", sources);
    EXPECT_EQ(0, mModule->InitLumoraModule(1));
    std::string version = "before";
    EXPECT_EQ(-1, mModule->GetClientVersion(1, version));
    ExpectOnlyError("GetVersion failed!\n");
    EXPECT_EQ("before", version);
}

TEST_F(VersionQueryTest, ServersVersionIsWhatTheDeviceReplies) {
    const unsigned int reader = Reader();
    mReplies["GetVersion"] = "9.8.7 beta";
    mLog.Clear();
    std::string version;
    EXPECT_EQ(0, mModule->GetServerVersion(1, reader, version));
    EXPECT_EQ("9.8.7 beta", version);
    EXPECT_THAT(Asked(), ElementsAre("reader Get GetVersion "));
    EXPECT_THAT(mLog.Texts(1), ElementsAre("version = 9.8.7 beta\n"));
    EXPECT_THAT(mLog.Texts(0), ElementsAre("client [1] Enter\n", "client [1] OUT.\n"));
}

TEST_F(VersionQueryTest, DeviceThatDoesNotAnswerFailsTheQuery) {
    const unsigned int camera = Camera();
    mResults["GetVersion"] = -1;
    mLog.Clear();
    std::string version = "before";
    EXPECT_EQ(-1, mModule->GetServerVersion(1, camera, version));
    ExpectOnlyError("GetVersion fail\n");
    EXPECT_EQ("before", version);
}

}  // namespace
}  // namespace lumoraAiModule
