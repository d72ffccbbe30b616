// ConnectAiDevice when it succeeds: what it asks of which device, in which order.
#include "tests/client/client_fixture.h"
#include "tests/support/eventually.h"

namespace lumoraAiModule {
namespace {

using lumora_test::Eventually;
using testing::ElementsAre;
using testing::IsEmpty;

const std::string SHARED = "This Handle has create transport.We will not create again\n";

class ConnectTest : public ChannelTest {};

TEST_F(ConnectTest, DeviceSetsUpItsHalfBeforeItHearsOfTheClient) {
    Connect(1, Camera());
    EXPECT_THAT(Asked(), ElementsAre("camera" + SETUP, "camera Post Connect 1"));
}

TEST_F(ConnectTest, CallIsTraced) {
    const unsigned int camera = Camera();
    mLog.Clear();
    Connect(1, camera);
    EXPECT_THAT(mLog.Texts(0), ElementsAre("client [1] Enter\n", "Enter SetupTransport.\n", "Out\n"));
    EXPECT_THAT(mLog.Texts(4), IsEmpty());
}

TEST_F(ConnectTest, ReceivingHalfListensBeforeTheDeviceIsAskedAndTheSendingHalfConnectsAfterIt) {
    const unsigned int camera = Camera();
    bool listens = false;
    bool connects = true;
    mDuring[SETUP_KEY] = [&] {
        listens = mLog.Has(1, "===ClientReceiveThread create succ=========\n");
        connects = mLog.Has(1, "addr: 127.0.0.1\n");
        mToClient = RawConnection::To(6667);
    };
    Connect(1, camera);
    EXPECT_TRUE(listens);
    EXPECT_FALSE(connects);
    EXPECT_TRUE(mLog.Has(1, "addr: 127.0.0.1\n"));
}

TEST_F(ConnectTest, BothHalvesCarryData) {
    const unsigned int camera = Camera();
    RegisterEvents(1, camera);
    Connect(1, camera);
    EXPECT_EQ(0, SendData(1, camera, "to the device"));
    EXPECT_EQ(lumora_test::ClientFrame(1, "to the device"), mFromClient.Receive(19));
    mToClient.Send(lumora_test::ServerFrameBytes("\x01", "face", "from the device"));
    ASSERT_TRUE(Eventually([] { return ReceivedPayloads().size() == 1; }));
    EXPECT_EQ("from the device", ReceivedPayloads()[0]);
}

TEST_F(ConnectTest, ReplyToTheSetupIsNotExamined) {
    mReplies[SETUP_KEY] = "no";
    EXPECT_EQ(0, TryToConnect(1, Camera()));
}

TEST_F(ConnectTest, EventsOfTheDeviceAreWantedBeforeItHearsOfTheClient) {
    const unsigned int camera = Camera();
    unsigned int duringSetup = 99;
    unsigned int duringConnect = 99;
    bool wanted = false;
    mDuring[SETUP_KEY] = [&] {
        duringSetup = ClientModuleProbe::ConnectedHandle(*mModule, 1);
        mToClient = RawConnection::To(6667);
    };
    mDuring["Connect"] = [&] {
        duringConnect = ClientModuleProbe::ConnectedHandle(*mModule, 1);
        wanted = mLog.Has(1, "Set connect addr = 127.0.0.1, port = 5683\n");
    };
    Connect(1, camera);
    EXPECT_EQ(0U, duringSetup);
    EXPECT_EQ(camera, duringConnect);
    EXPECT_TRUE(wanted);
}

TEST_F(ConnectTest, DeviceIsAskedWithoutTheModulesLock) {
    const unsigned int camera = Camera();
    std::vector<bool> locked;
    mDuring[SETUP_KEY] = [&] {
        locked.push_back(ClientModuleProbe::IsLocked(*mModule));
        mToClient = RawConnection::To(6667);
    };
    mDuring["Connect"] = [&] { locked.push_back(ClientModuleProbe::IsLocked(*mModule)); };
    Connect(1, camera);
    EXPECT_THAT(locked, ElementsAre(false, false));
}

TEST_F(ConnectTest, ConnectingTwiceSucceedsAndSendsNothing) {
    const unsigned int camera = Camera();
    Connect(1, camera);
    ForgetAsked();
    mLog.Clear();
    EXPECT_EQ(0, TryToConnect(1, camera));
    EXPECT_THAT(Asked(), IsEmpty());
    EXPECT_THAT(mLog.Texts(1), ElementsAre("This client has connected handle: 1!\n"));
}

TEST_F(ConnectTest, SecondClientOnAHandleSharesItsTransport) {
    NewClients(1);
    const unsigned int camera = Camera();
    Connect(1, camera);
    ForgetAsked();
    mLog.Clear();
    EXPECT_EQ(0, TryToConnect(2, camera));
    EXPECT_THAT(Asked(), ElementsAre("camera Post Connect 2"));
    ExpectOnlyError(SHARED);
    EXPECT_EQ(0, SendData(1, camera, "a"));
    EXPECT_EQ(0, SendData(2, camera, "b"));
    EXPECT_EQ(lumora_test::ClientFrame(1, "a") + lumora_test::ClientFrame(2, "b"), mFromClient.Receive(14));
}

// ---- From one device to another ----

TEST_F(ConnectTest, OldDevicesTransportIsStoppedBeforeTheNewDeviceIsAsked) {
    const unsigned int camera = Camera();
    const unsigned int reader = Reader();
    Connect(1, camera);
    RawConnection oldToClient = std::move(mToClient);
    RawConnection oldFromClient = std::move(mFromClient);
    ForgetAsked();
    mLog.Clear();
    Connect(1, reader);
    EXPECT_TRUE(oldToClient.SeesEnd());
    EXPECT_TRUE(oldFromClient.SeesEnd());
    EXPECT_THAT(Asked(), ElementsAre("reader" + SETUP, "reader Post Connect 1"));
    EXPECT_THAT(mLog.Texts(0),
                ElementsAre("client [1] Enter\n", "Enter SetupTransport.\n",
                            "client  Enter StopTransports.\n", "client  OUT StopTransports.\n", "Out\n"));
    EXPECT_THAT(mLog.Texts(4), IsEmpty());
}

TEST_F(ConnectTest, MovedClientSendsToTheNewDeviceOnly) {
    const unsigned int camera = Camera();
    const unsigned int reader = Reader();
    Connect(1, camera);
    Connect(1, reader);
    EXPECT_FALSE(IsConnected(1, camera));
    EXPECT_TRUE(IsConnected(1, reader));
    EXPECT_EQ(0, SendData(1, reader, "x"));
    EXPECT_EQ(lumora_test::ClientFrame(1, "x"), mFromClient.Receive(7));
    EXPECT_EQ(-1, SendData(1, camera, "x"));
}

TEST_F(ConnectTest, StoppedTransportStaysWithItsHandleAndIsNotSetUpAgain) {
    const unsigned int camera = Camera();
    const unsigned int reader = Reader();
    Connect(1, camera);
    Connect(1, reader);
    ForgetAsked();
    mLog.Clear();
    EXPECT_EQ(0, TryToConnect(1, camera));
    EXPECT_THAT(Asked(), ElementsAre("camera Post Connect 1"));
    ExpectOnlyError(SHARED);
    mLog.Clear();
    EXPECT_EQ(-1, SendData(1, camera, "x"));
    EXPECT_THAT(mLog.Texts(4),
                ElementsAre("No transport channel created, please connect first.\n", "SendData failed!\n"));
}

TEST_F(ConnectTest, OtherClientsOfTheOldDeviceStayConnectedToAStoppedTransport) {
    NewClients(1);
    const unsigned int camera = Camera();
    const unsigned int reader = Reader();
    Connect(1, camera);
    EXPECT_EQ(0, TryToConnect(2, camera));
    Connect(1, reader);
    EXPECT_TRUE(IsConnected(2, camera));
    EXPECT_EQ(-1, SendData(2, camera, "x"));
}

TEST_F(ConnectTest, ModuleIsNotLockedWhileTheOldTransportStops) {
    const unsigned int camera = Camera();
    const unsigned int reader = Reader();
    Connect(1, camera);
    bool locked = true;
    WhenLogged(2, "The transport will be stopped.\n",
               [&] { locked = ClientModuleProbe::IsLocked(*mModule); });
    Connect(1, reader);
    EXPECT_FALSE(locked);
}

TEST_F(ConnectTest, FrameThatArrivesWhileTheOldTransportStopsIsStillDelivered) {
    const unsigned int camera = Camera();
    const unsigned int reader = Reader();
    RegisterEvents(1, camera);
    Connect(1, camera);
    WhenLogged(0, "client  Enter StopTransports.\n", [&] {
        mToClient.Send(lumora_test::ServerFrameBytes("\x01", "face", "late"));
        EXPECT_TRUE(Eventually([] { return ReceivedPayloads().size() == 1; }));
    });
    Connect(1, reader);
    EXPECT_THAT(ReceivedPayloads(), ElementsAre("late"));
}

TEST_F(ConnectTest, OldDeviceThatHangsUpWhileItsTransportStopsDoesNotDisturb) {
    const unsigned int camera = Camera();
    const unsigned int reader = Reader();
    Connect(1, camera);
    WhenLogged(0, "client  Enter StopTransports.\n", [&] {
        mToClient.Close();
        EXPECT_TRUE(mLog.WaitFor(0, "handle [1] Enter\n"));
    });
    Connect(1, reader);
    EXPECT_TRUE(IsConnected(1, reader));
    EXPECT_TRUE(mLog.Has(0, "OUT\n"));
}

TEST_F(ConnectTest, DeviceThatLeavesWhileTheOldTransportStopsIsNotConnected) {
    const unsigned int camera = Camera();
    const unsigned int reader = Reader();
    Connect(1, camera);
    ForgetAsked();
    mLog.Clear();
    WhenLogged(0, "client  Enter StopTransports.\n",
               [&] { mModule->OnRemoveDevice(7, "127.0.0.1", 5684, "reader"); });
    EXPECT_EQ(-1, TryToConnect(1, reader));
    EXPECT_THAT(mLog.Texts(4),
                ElementsAre("This Handle no transport.\n", "Handle error: 2, no such device!\n"));
    EXPECT_TRUE(mLog.Has(1, "SetupTransport failed!\n"));
    EXPECT_THAT(Asked(), IsEmpty());
}

TEST_F(ConnectTest, ClientThatEndsWhileTheOldTransportStopsIsNotConnected) {
    NewClients(1);
    const unsigned int camera = Camera();
    const unsigned int reader = Reader();
    Connect(1, camera);
    ForgetAsked();
    mLog.Clear();
    WhenLogged(0, "client  Enter StopTransports.\n", [&] { EXPECT_EQ(0, RemoveClient(1)); });
    EXPECT_EQ(-1, TryToConnect(1, reader));
    EXPECT_TRUE(mLog.Has(1, "ClientID : 1 no resource!!\n"));
    EXPECT_THAT(Asked(), ElementsAre("reader" + SETUP));
    EXPECT_TRUE(mToClient.SeesEnd());
}

}  // namespace
}  // namespace lumoraAiModule
