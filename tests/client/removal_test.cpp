// A device leaves the network.
#include <chrono>
#include <thread>

#include "library/callback_scope.h"
#include "tests/client/client_fixture.h"
#include "tests/support/eventually.h"

namespace lumoraAiModule {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class RemovalTest : public ChannelTest {
protected:
    void RegisterForEvents(int clientID) { EXPECT_EQ(0, mModule->RegisterEvent(clientID, RemovalCallback)); }
    int Remove(int port, const std::string& address = "127.0.0.1") {
        return mModule->OnRemoveDevice(7, address, port, "camera");
    }
};

TEST_F(RemovalTest, UnknownAddressIsRefused) {
    EXPECT_EQ(-1, Remove(5683, "192.0.2.1"));
    EXPECT_THAT(mLog.Texts(0), ElementsAre("Enter\n"));
    EXPECT_THAT(mLog.Texts(2), ElementsAre("Received request to remove device[192.0.2.1:5683].\n"));
    ExpectOnlyError("device addr : 192.0.2.1 is not the one we conncted!!\n");
}

TEST_F(RemovalTest, PortIsPartOfTheAddress) {
    EXPECT_EQ(-1, Remove(5685));
    ExpectOnlyError("device addr : 127.0.0.1 is not the one we conncted!!\n");
}

TEST_F(RemovalTest, ConnectedClientIsToldAndCleared) {
    RegisterForEvents(1);
    Connect(1, Camera());
    mLog.Clear();
    EXPECT_EQ(0, Remove(5683));
    EXPECT_THAT(ClientEvents(), ElementsAre("1:1"));
    EXPECT_TRUE(mLog.Has(2, "Received request to remove device[127.0.0.1:5683].\n"));
    EXPECT_TRUE(mLog.Has(1, "We will clear camera 's resource, handle = 1!\n"));
    EXPECT_EQ("Out\n", mLog.Texts(0).back());
    EXPECT_THAT(mLog.Texts(4), IsEmpty());
}

// Its goodbye comes while a callback is at work and the other frames are unread.
TEST_F(RemovalTest, LastFramesOfADeviceThatLeavesAreDelivered) {
    RegisterForEvents(1);
    const unsigned int camera = Camera();
    RegisterEvents(1, camera);
    Connect(1, camera);
    const Bytes frame = lumora_test::ServerFrameBytes("\x01", "face", "last");
    DuringNextEvent([&] {
        for (int i = 0; i < 9; ++i) {
            mToClient.Send(frame);
        }
        mToClient.Close();
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    });
    mToClient.Send(frame);
    EXPECT_TRUE(lumora_test::Eventually([] { return !ReceivedEvents().empty(); }));
    Remove(5683);
    EXPECT_EQ(10U, ReceivedEvents().size());
}

TEST_F(RemovalTest, AddressesOfManyFormerSearchesAreForgottenButNotThoseInUse) {
    RegisterForEvents(1);
    Connect(1, Camera());
    for (int port = 20000; port < 20000 + 4 * 300; port += 4) {
        mPlatform.devices.clear();
        for (int i = 0; i < 4; ++i) {
            AddDevice("type " + std::to_string(port + i), port + i);
        }
        Search();
    }
    EXPECT_EQ(-1, Remove(5684));
    EXPECT_THAT(mLog.Texts(4).back(), "device addr : 127.0.0.1 is not the one we conncted!!\n");
    EXPECT_EQ(0, Remove(5683));
    EXPECT_THAT(ClientEvents(), ElementsAre("1:1"));
}

TEST_F(RemovalTest, ClientsAreToldInTheOrderOfTheirIds) {
    NewClients(3);
    const unsigned int camera = Camera();
    for (const int id : {4, 1, 3, 2}) {
        RegisterForEvents(id);
        TryToConnect(id, camera);
    }
    EXPECT_EQ(0, Remove(5683));
    EXPECT_THAT(ClientEvents(), ElementsAre("1:1", "2:1", "3:1", "4:1"));
}

TEST_F(RemovalTest, OnlyClientsOfThatDeviceAreTold) {
    NewClients(2);
    const unsigned int camera = Camera();
    const unsigned int reader = Reader();
    RegisterForEvents(1);
    RegisterForEvents(2);
    RegisterForEvents(3);
    Connect(1, camera);
    Connect(2, reader);
    EXPECT_EQ(0, Remove(5684));
    EXPECT_THAT(ClientEvents(), ElementsAre("2:1"));
    EXPECT_TRUE(IsConnected(1, camera));
}

TEST_F(RemovalTest, ClientWithoutACallbackIsOnlyCleared) {
    const unsigned int camera = Camera();
    Connect(1, camera);
    EXPECT_EQ(0, Remove(5683));
    EXPECT_THAT(ClientEvents(), IsEmpty());
    EXPECT_EQ(0, Search());
    EXPECT_EQ(camera, Camera());
    EXPECT_FALSE(IsConnected(1, camera));
}

// They may connect again on another thread as soon as they are told.
TEST_F(RemovalTest, ClientsAreNoLongerConnectedWhenTheyAreTold) {
    NewClients(1);
    const unsigned int camera = Camera();
    for (const int id : {1, 2}) {
        RegisterForEvents(id);
        TryToConnect(id, camera);
    }
    std::vector<unsigned int> handles;
    DuringClientEvents([&](int id) { handles.push_back(ClientModuleProbe::ConnectedHandle(*mModule, id)); });
    EXPECT_EQ(0, Remove(5683));
    EXPECT_THAT(handles, ElementsAre(0U, 0U));
    EXPECT_EQ(0U, ClientModuleProbe::ConnectedHandle(*mModule, 1));
    EXPECT_EQ(0U, ClientModuleProbe::ConnectedHandle(*mModule, 2));
}

TEST_F(RemovalTest, ClientsAreToldWithoutTheModulesLockAndInsideACallbackScope) {
    RegisterForEvents(1);
    Connect(1, Camera());
    bool locked = true;
    bool inside = false;
    DuringClientEvents([&](int) {
        locked = ClientModuleProbe::IsLocked(*mModule);
        inside = lumora::CallbackScope::Inside(lumora::Side::CLIENT);
    });
    EXPECT_EQ(0, Remove(5683));
    EXPECT_FALSE(locked);
    EXPECT_TRUE(inside);
    EXPECT_FALSE(lumora::CallbackScope::Inside(lumora::Side::CLIENT));
}

TEST_F(RemovalTest, DeviceWithoutAHandleConcernsNoClient) {
    RegisterForEvents(1);
    mLog.Clear();
    EXPECT_EQ(0, Remove(5683));
    EXPECT_THAT(ClientEvents(), IsEmpty()) << "a client that is not connected has handle 0, like the device";
    EXPECT_TRUE(mLog.Has(1, "We will clear camera 's resource, handle = 0!\n"));
    ExpectOnlyError("This Handle no transport.\n");
}

TEST_F(RemovalTest, DeviceWithoutAHandleIsForgotten) {
    EXPECT_EQ(0, Remove(5683));
    std::string type = "camera";
    unsigned int handle = 0;
    EXPECT_EQ(-1, mModule->CreateAiDevice(1, type, &handle));
    EXPECT_EQ(1U, Reader());
}

TEST_F(RemovalTest, HandleWithoutATransportIsGivenUpWithoutFailure) {
    const unsigned int camera = Camera();
    mLog.Clear();
    EXPECT_EQ(0, Remove(5683));
    ExpectOnlyError("This Handle no transport.\n");
    mLog.Clear();
    EXPECT_EQ(-1, TryToConnect(1, camera));
    EXPECT_TRUE(mLog.Has(1, "Handle error, ConnectAiDevice failed!\n"));
    EXPECT_EQ(1, mPlatform.LiveProxies());
}

TEST_F(RemovalTest, AddressStaysKnownAndTheSecondEventFindsNoHandle) {
    Camera();
    EXPECT_EQ(0, Remove(5683));
    mLog.Clear();
    EXPECT_EQ(0, Remove(5683));
    EXPECT_TRUE(mLog.Has(1, "We will clear camera 's resource, handle = 0!\n"));
}

TEST_F(RemovalTest, TransportIsDestroyedButNotStopped) {
    Connect(1, Camera());
    mLog.Clear();
    EXPECT_EQ(0, Remove(5683));
    EXPECT_TRUE(mFromClient.SeesEnd());
    EXPECT_TRUE(mToClient.SeesEnd());
    EXPECT_FALSE(mLog.Has(2, "The transport will be stopped.\n"));
    EXPECT_FALSE(mLog.Has(0, "handle [1] Enter\n")) << "an ended transport is not a lost one";
    EXPECT_EQ(0, mPlatform.CallCount("Exit"));
}

TEST_F(RemovalTest, TransportThatCannotBeDestroyedStaysAfterEverythingElseIsGone) {
    const unsigned int camera = Camera();
    const auto transport = std::make_shared<ScriptedTransport>();
    transport->destroyResult = 1;
    ClientModuleProbe::SetTransport(*mModule, camera, transport);
    mLog.Clear();
    EXPECT_EQ(-1, Remove(5683));
    ExpectOnlyError("DestoryTransports!\n");
    EXPECT_EQ(1, transport->destroyed);
    EXPECT_EQ(1, mPlatform.LiveProxies());
    EXPECT_EQ(-1, mModule->DisconnectAiDevice(1, camera));
    EXPECT_EQ(camera, Reader()) << "the handle is free";
    EXPECT_EQ(0, SendData(1, camera, "x")) << "the transport is still there";
}

TEST_F(RemovalTest, DeviceCanBeFoundAndConnectedAgain) {
    const unsigned int camera = Camera();
    for (int round = 0; round < 3; ++round) {
        Connect(1, camera);
        EXPECT_EQ(0, SendData(1, camera, "hello"));
        EXPECT_EQ(lumora_test::ClientFrame(1, "hello"), mFromClient.Receive(11));
        EXPECT_EQ(0, Remove(5683));
        EXPECT_EQ(0, Search());
        EXPECT_EQ(camera, Camera());
    }
}

TEST_F(RemovalTest, FirstOfTwoHandlesOfATypeIsTheOneThatIsGivenUp) {
    Camera();
    EXPECT_EQ(2U, Reader());
    EXPECT_EQ(0, Remove(5683));
    EXPECT_EQ(1U, Reader());  // and 2
    mLog.Clear();
    EXPECT_EQ(0, Remove(5684));
    EXPECT_TRUE(mLog.Has(1, "We will clear reader 's resource, handle = 1!\n"));
    EXPECT_EQ(0, Search());
    EXPECT_EQ(1U, Camera());
    EXPECT_EQ(2U, Reader());
    EXPECT_TRUE(mLog.Has(3, "Devtype reader has been created handle\n"));
}

TEST_F(RemovalTest, PlatformsEventsArriveForTheConnectedDeviceOnly) {
    RegisterForEvents(1);
    Connect(1, Camera());
    EXPECT_EQ(0, mPlatform.SendEvent(2, 7, "192.0.2.1", 5683, "camera"));
    EXPECT_THAT(ClientEvents(), IsEmpty());
    EXPECT_EQ(0, mPlatform.SendEvent(2, 7, "127.0.0.1", 5683, "camera"));
    EXPECT_THAT(ClientEvents(), ElementsAre("1:1"));
}

}  // namespace
}  // namespace lumoraAiModule
