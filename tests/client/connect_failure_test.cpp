// ConnectAiDevice: each step that can fail, what is cleaned up then and what stays.
#include <filesystem>

#include "tests/client/client_fixture.h"
#include "tests/support/system_faults.h"

namespace lumoraAiModule {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

const char* const STOPPING_OLD = "client  Enter StopTransports.\n";

class ConnectFailureTest : public ChannelTest {
protected:
    void FailToConnect(unsigned int handle) {
        ForgetAsked();
        mLog.Clear();
        ASSERT_EQ(-1, TryToConnect(1, handle)) << mLog.Dump();
    }
    // Whether the module was locked when a transport was stopped.
    void WatchLockWhileStopping() {
        WhenLogged(2, "The transport will be stopped.\n",
                   [&] { mLockedWhileStopping = ClientModuleProbe::IsLocked(*mModule); });
    }
    static std::ptrdiff_t OpenDescriptors() {
        const std::filesystem::directory_iterator all("/proc/self/fd");
        return std::distance(begin(all), end(all));
    }
    bool mLockedWhileStopping = true;
};

TEST_F(ConnectFailureTest, LackOfMemoryForTheTransport) {
    const unsigned int camera = Camera();
    mLog.Clear();
    lumora_test::FailAllocation();
    EXPECT_EQ(-1, TryToConnect(1, camera));
    lumora_test::ResetAllocationFaults();
    ExpectOnlyError("CreateTransportsManager failed!\n");
    EXPECT_TRUE(mLog.Has(1, "SetupTransport failed!\n"));
    EXPECT_THAT(Asked(), IsEmpty());
    mLog.Clear();
    Connect(1, camera);
    EXPECT_FALSE(mLog.Has(0, STOPPING_OLD));
}

TEST_F(ConnectFailureTest, ReceivingHalfThatCannotListenLeavesItsManagerBehind) {
    const unsigned int camera = Camera();
    {
        const RawListener occupied(6667);
        FailToConnect(camera);
    }
    EXPECT_THAT(mLog.Texts(4),
                ElementsAre("bind socket error: Address already in use(errno: 98)\n", "will stop transport\n",
                            "SetupSocket error: 98\n", "Create recv Transports failed!\n"));
    EXPECT_TRUE(mLog.Has(1, "SetupTransport failed!\n"));
    EXPECT_THAT(Asked(), IsEmpty());
    EXPECT_FALSE(IsConnected(1, camera));
    mLog.Clear();
    Connect(1, camera);
    EXPECT_TRUE(mLog.Has(0, STOPPING_OLD)) << "the manager of the failed attempt";
}

TEST_F(ConnectFailureTest, RefusedSetupStopsAndForgetsTheTransport) {
    const unsigned int camera = Camera();
    mResults[SETUP_KEY] = -1;
    mDuring.erase(SETUP_KEY);
    WatchLockWhileStopping();
    FailToConnect(camera);
    ExpectOnlyError("SetupMediaService failed\n");
    EXPECT_TRUE(mLog.Has(1, "SetupTransport failed!\n"));
    EXPECT_TRUE(mLog.Has(2, "The transport has been stopped.\n"));
    EXPECT_FALSE(mLockedWhileStopping);
    EXPECT_THAT(Asked(), ElementsAre("camera" + SETUP)) << "neither Connect nor StopTransport";
    EXPECT_FALSE(IsConnected(1, camera));
    const RawListener portIsFree(6667);
}

TEST_F(ConnectFailureTest, RefusedSetupEndsTheConnectionThatTheDeviceHadMadeAlready) {
    mResults[SETUP_KEY] = -1;
    FailToConnect(Camera());
    EXPECT_TRUE(mToClient.SeesEnd());
}

TEST_F(ConnectFailureTest, ConnectingAgainAfterARefusedSetupStartsAfresh) {
    const unsigned int camera = Camera();
    mResults[SETUP_KEY] = -1;
    FailToConnect(camera);
    mResults.clear();
    mLog.Clear();
    Connect(1, camera);
    EXPECT_FALSE(mLog.Has(0, STOPPING_OLD));
    EXPECT_EQ(0, SendData(1, camera, "x"));
    EXPECT_EQ(lumora_test::ClientFrame(1, "x"), mFromClient.Receive(7));
}

TEST_F(ConnectFailureTest, SendingHalfThatCannotConnectMakesTheDeviceDropItsHalf) {
    const unsigned int camera = Camera();
    mListener.Close();
    WatchLockWhileStopping();
    bool stoppedFirst = false;
    mDuring["StopTransport"] = [&] { stoppedFirst = mLog.Has(2, "The transport has been stopped.\n"); };
    FailToConnect(camera);
    EXPECT_THAT(mLog.Texts(4), ElementsAre("connect error: Connection refused(errno: 111)\n",
                                           "SetupSocket error: 111\n", "Create send Transports failed!\n"));
    EXPECT_TRUE(mLog.Has(1, "SetupTransport failed!\n"));
    EXPECT_THAT(Asked(), ElementsAre("camera" + SETUP, "camera Put StopTransport "));
    EXPECT_TRUE(stoppedFirst);
    EXPECT_FALSE(mLockedWhileStopping);
    EXPECT_TRUE(mToClient.SeesEnd());
    EXPECT_FALSE(IsConnected(1, camera));
}

TEST_F(ConnectFailureTest, ResultOfDroppingTheDevicesHalfDoesNotMatter) {
    mListener.Close();
    mResults["StopTransport"] = -1;
    FailToConnect(Camera());
    EXPECT_EQ("Create send Transports failed!\n", mLog.Texts(4).back());
}

TEST_F(ConnectFailureTest, FailedSetUpLeavesAnotherConnectionOfTheClientInItsRecord) {
    const unsigned int camera = Camera();
    const unsigned int reader = Reader();
    Connect(1, camera);
    mResults[SETUP_KEY] = -1;
    FailToConnect(reader);
    EXPECT_TRUE(IsConnected(1, camera));
    EXPECT_EQ(-1, SendData(1, camera, "x")) << "but its transport has been stopped";
}

TEST_F(ConnectFailureTest, RefusedConnectStopsTheTransportWithoutTheLock) {
    const unsigned int camera = Camera();
    mResults["Connect"] = -1;
    WatchLockWhileStopping();
    FailToConnect(camera);
    ExpectOnlyError("Post command ERROR !\n");
    EXPECT_TRUE(mLog.Has(2, "The transport has been stopped.\n"));
    EXPECT_FALSE(mLockedWhileStopping);
    EXPECT_TRUE(mToClient.SeesEnd());
    EXPECT_FALSE(IsConnected(1, camera));
    EXPECT_THAT(Asked(), ElementsAre("camera" + SETUP, "camera Post Connect 1"));
}

TEST_F(ConnectFailureTest, EveryResultOfConnectButZeroIsARefusal) {
    mResults["Connect"] = 1;
    FailToConnect(Camera());
    ExpectOnlyError("Post command ERROR !\n");
}

TEST_F(ConnectFailureTest, TransportOfARefusedConnectStaysWithTheHandle) {
    const unsigned int camera = Camera();
    mResults["Connect"] = -1;
    FailToConnect(camera);
    mResults.clear();
    ForgetAsked();
    mLog.Clear();
    EXPECT_EQ(0, TryToConnect(1, camera));
    ExpectOnlyError("This Handle has create transport.We will not create again\n");
    EXPECT_THAT(Asked(), ElementsAre("camera Post Connect 1"));
    EXPECT_EQ(-1, SendData(1, camera, "x"));
}

TEST_F(ConnectFailureTest, RefusedConnectEndsAlsoTheEarlierConnectionOfTheClient) {
    const unsigned int camera = Camera();
    const unsigned int reader = Reader();
    Connect(1, camera);
    mResults["Connect"] = -1;
    FailToConnect(reader);
    EXPECT_FALSE(IsConnected(1, reader));
    EXPECT_FALSE(IsConnected(1, camera));
}

TEST_F(ConnectFailureTest, RefusedConnectOfASecondClientStopsTheSharedTransport) {
    NewClients(1);
    const unsigned int camera = Camera();
    Connect(1, camera);
    mResults["Connect"] = -1;
    EXPECT_EQ(-1, TryToConnect(2, camera));
    EXPECT_TRUE(mFromClient.SeesEnd());
    EXPECT_TRUE(IsConnected(1, camera));
    EXPECT_EQ(-1, SendData(1, camera, "x"));
}

TEST_F(ConnectFailureTest, DeviceThatHangsUpDuringARefusedConnectIsForgottenWithoutDeadlock) {
    const unsigned int camera = Camera();
    mResults["Connect"] = -1;
    mDuring["Connect"] = [&] {
        mToClient.Close();
        EXPECT_TRUE(mLog.WaitFor(0, "handle [1] Enter\n")) << "the receive thread waits for the lock now";
    };
    FailToConnect(camera);
    EXPECT_TRUE(mLog.Has(2, "The transport has been stopped.\n"));
    EXPECT_EQ(-1, TryToConnect(1, camera));
    EXPECT_TRUE(mLog.Has(1, "Handle error, ConnectAiDevice failed!\n"));
}

TEST_F(ConnectFailureTest, DeviceThatHangsUpDuringTheSetupIsNotForgotten) {
    const unsigned int camera = Camera();
    mResults[SETUP_KEY] = -1;
    mDuring[SETUP_KEY] = [&] {
        RawConnection::To(6667).Close();
        EXPECT_TRUE(mLog.WaitFor(0, "handle [1] Enter\n"));
    };
    FailToConnect(camera);
    EXPECT_THAT(mLog.Texts(4),
                UnorderedElementsAre("SetupMediaService failed\n", "This Handle no transport.\n"));
    mResults.clear();
    mDuring[SETUP_KEY] = [&] { mToClient = RawConnection::To(6667); };
    Connect(1, camera);
}

TEST_F(ConnectFailureTest, FailedAttemptsLeaveNoDescriptorOpen) {
    const unsigned int camera = Camera();
    mResults[SETUP_KEY] = -1;
    mDuring.erase(SETUP_KEY);
    FailToConnect(camera);
    const std::ptrdiff_t before = OpenDescriptors();
    for (int i = 0; i < 5; ++i) {
        FailToConnect(camera);
    }
    mResults.clear();
    mListener.Close();
    for (int i = 0; i < 5; ++i) {
        FailToConnect(camera);
    }
    EXPECT_EQ(before - 1, OpenDescriptors()) << "without the listener";
}

}  // namespace
}  // namespace lumoraAiModule
