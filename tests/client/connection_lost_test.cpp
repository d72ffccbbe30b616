// OnDisconnect: the device closes the connection, or it breaks.
#include "tests/client/client_fixture.h"
#include "tests/support/eventually.h"

namespace lumoraAiModule {
namespace {

using lumora_test::Eventually;
using testing::ElementsAre;
using testing::IsEmpty;

class ConnectionLostTest : public ChannelTest {
protected:
    bool IsFound(std::string type) {
        unsigned int handle = 0;
        return mModule->CreateAiDevice(1, type, &handle) == 0;
    }
};

TEST_F(ConnectionLostTest, DeviceIsForgotten) {
    const unsigned int camera = Camera();
    Connect(1, camera);
    mLog.Clear();
    DeviceHangsUp(camera);
    EXPECT_THAT(mLog.Texts(0), ElementsAre("handle [1] Enter\n", "OUT\n"));
    EXPECT_THAT(mLog.Texts(4), IsEmpty());
    EXPECT_FALSE(IsFound("camera"));
    mLog.Clear();
    EXPECT_EQ(-1, TryToConnect(1, camera));
    EXPECT_THAT(mLog.Texts(1), ElementsAre("Handle error, ConnectAiDevice failed!\n"));
    EXPECT_EQ(1, mPlatform.LiveProxies());
}

TEST_F(ConnectionLostTest, DeviceIsFreedWithoutTheLock) {
    const unsigned int camera = Camera();
    std::vector<bool> locked;
    mPlatform.onFree = [&] { locked.push_back(ClientModuleProbe::IsLocked(*mModule)); };
    Connect(1, camera);  // starts the thread that will call it
    DeviceHangsUp(camera);
    EXPECT_TRUE(Eventually([&] { return mPlatform.LiveProxies() == 1; }));
    mPlatform.onFree = [] {};
    EXPECT_THAT(locked, ElementsAre(false));
}

TEST_F(ConnectionLostTest, HandleIsGoneForDataToo) {
    const unsigned int camera = Camera();
    Connect(1, camera);
    DeviceHangsUp(camera);
    mLog.Clear();
    EXPECT_EQ(-1, SendData(1, camera, "x"));
    ExpectOnlyError("Error: 1,no such device!\n");
}

TEST_F(ConnectionLostTest, EveryClientOfTheHandleIsCleared) {
    NewClients(2);
    const unsigned int camera = Camera();
    Connect(1, camera);
    EXPECT_EQ(0, TryToConnect(3, camera));
    DeviceHangsUp(camera);
    EXPECT_EQ(0, Search());
    EXPECT_EQ(camera, Camera());
    EXPECT_FALSE(IsConnected(1, camera));
    EXPECT_FALSE(IsConnected(3, camera));
}

TEST_F(ConnectionLostTest, ClientsOfOtherHandlesStayConnected) {
    NewClients(1);
    const unsigned int camera = Camera();
    const unsigned int reader = Reader();
    Connect(1, camera);
    Connect(2, reader);
    DeviceHangsUp(reader);
    EXPECT_TRUE(IsConnected(1, camera));
    EXPECT_FALSE(IsFound("reader"));
    EXPECT_TRUE(IsFound("camera"));
}

TEST_F(ConnectionLostTest, NoClientIsToldByAClientEvent) {
    EXPECT_EQ(0, mModule->RegisterEvent(1, RemovalCallback));
    const unsigned int camera = Camera();
    Connect(1, camera);
    DeviceHangsUp(camera);
    EXPECT_THAT(ClientEvents(), IsEmpty());
}

TEST_F(ConnectionLostTest, ResetCountsAsLost) {
    const unsigned int camera = Camera();
    Connect(1, camera);
    mLog.Clear();
    mToClient.Reset();
    ASSERT_TRUE(mLog.WaitFor(0, "OUT\n"));
    EXPECT_FALSE(IsFound("camera"));
}

TEST_F(ConnectionLostTest, ClosedSendingHalfAloneIsNotLost) {
    const unsigned int camera = Camera();
    RegisterEvents(1, camera);
    Connect(1, camera);
    mFromClient.Close();
    mToClient.Send(lumora_test::ServerFrameBytes("\x01", "face", "still here"));
    ASSERT_TRUE(Eventually([] { return ReceivedPayloads().size() == 1; }));
    EXPECT_TRUE(IsConnected(1, camera));
}

TEST_F(ConnectionLostTest, DeviceCanBeFoundAndConnectedAgainAndAgain) {
    const unsigned int camera = Camera();
    RegisterEvents(1, camera);
    for (int round = 1; round <= 3; ++round) {
        Connect(1, camera);
        EXPECT_EQ(0, SendData(1, camera, "x"));
        EXPECT_EQ(lumora_test::ClientFrame(1, "x"), mFromClient.Receive(7));
        mToClient.Send(lumora_test::ServerFrameBytes("\x01", "face", "data"));
        ASSERT_TRUE(Eventually([&] { return ReceivedPayloads().size() == static_cast<size_t>(round); }));
        mLog.Clear();
        DeviceHangsUp(camera);
        EXPECT_EQ(-1, TryToConnect(1, camera));
        EXPECT_EQ(0, Search());
        EXPECT_EQ(camera, Camera());
    }
}

TEST_F(ConnectionLostTest, ConnectionThatEndsInTheMiddleOfAFrameSpoilsNothingOfTheNext) {
    const unsigned int camera = Camera();
    RegisterEvents(1, camera);
    Connect(1, camera);
    mToClient.Send(lumora_test::ServerFrameBytes("\x01", "face", "cut in the middle").substr(0, 20));
    DeviceHangsUp(camera);
    EXPECT_EQ(0, Search());
    EXPECT_EQ(camera, Camera());
    Connect(1, camera);
    mToClient.Send(lumora_test::ServerFrameBytes("\x01", "face", "whole"));
    ASSERT_TRUE(Eventually([] { return ReceivedPayloads().size() == 1; }));
    EXPECT_THAT(ReceivedPayloads(), ElementsAre("whole"));
}

TEST_F(ConnectionLostTest, SecondNoticeFindsNoHandle) {
    const unsigned int camera = Camera();
    Connect(1, camera);
    DeviceHangsUp(camera);
    mLog.Clear();
    EXPECT_EQ(-1, mModule->OnDisconnect(camera));
    EXPECT_THAT(mLog.Texts(0), ElementsAre("handle [1] Enter\n"));
    ExpectOnlyError("Handle error: 1, no such device type!\n");
}

TEST_F(ConnectionLostTest, DeviceThatWasNotFoundAgainKeepsItsClientsAndTransport) {
    const unsigned int camera = Camera();
    Connect(1, camera);
    LoseTheCamera();
    EXPECT_EQ(-1, mModule->OnDisconnect(camera));
    ExpectOnlyError("Handle error: 1, no such device!\n");
    mPlatform.devices = {Device("camera")};
    EXPECT_EQ(0, Search());
    EXPECT_TRUE(IsConnected(1, camera));
    EXPECT_EQ(0, SendData(1, camera, "x"));
}

TEST_F(ConnectionLostTest, HandleWithoutATransportLosesItsClientsOnly) {
    const unsigned int camera = Camera();
    Connect(1, camera);
    EXPECT_EQ(-1, mModule->DestoryTransport(NO_HANDLE));
    mReplies["TransStatus"] = "free";
    EXPECT_EQ(0, mModule->DestoryTransport(camera));
    EXPECT_TRUE(IsConnected(1, camera));
    mLog.Clear();
    EXPECT_EQ(0, mModule->OnDisconnect(camera));
    ExpectOnlyError("This Handle no transport.\n");
    EXPECT_FALSE(IsConnected(1, camera));
    EXPECT_TRUE(IsFound("camera"));
}

TEST_F(ConnectionLostTest, NextConnectionStopsWhatIsLeftOfTheLostOne) {
    const unsigned int camera = Camera();
    const unsigned int reader = Reader();
    Connect(1, camera);
    DeviceHangsUp(camera);
    mLog.Clear();
    Connect(1, reader);
    EXPECT_TRUE(mLog.Has(0, "client  Enter StopTransports.\n"));
    EXPECT_EQ(0, SendData(1, reader, "x"));
}

TEST_F(ConnectionLostTest, DisconnectFindsNoHandleAfterwards) {
    const unsigned int camera = Camera();
    Connect(1, camera);
    DeviceHangsUp(camera);
    mLog.Clear();
    EXPECT_EQ(-1, mModule->DisconnectAiDevice(1, camera));
    ExpectOnlyError("Handle error: 1, no such device!\n");
}

}  // namespace
}  // namespace lumoraAiModule
