#include <stdexcept>

#include "tests/server/server_fixture.h"

namespace lumora_test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class ServerRequestsTest : public ServerModuleTest {
protected:
    ServerRequestsTest() { StartWith({"face"}); }

    // A channel over a transport that does what the test says.
    std::shared_ptr<FakeTransport> OpenFakeChannel() {
        EXPECT_EQ("Succ", RequestSetup().reply) << mLog.Dump();
        mLog.Clear();
        return mTransports.next;
    }

    // Whether the module still holds the transport.
    bool IsKept(const std::shared_ptr<FakeTransport>& transport) const { return transport.use_count() > 2; }

    // How many clients the module counts, told by the log line of a removal.
    void ExpectClients(int count) {
        mLog.Clear();
        EXPECT_EQ(0, Connect(99));
        EXPECT_EQ(0, Destroy(99));
        EXPECT_EQ(2, mLog.Count(2, "There are " + std::to_string(count) + " clients connected.\n"))
            << mLog.Dump();
    }

    FakeTransports mTransports;
};

// ---- Get ----

TEST_F(ServerRequestsTest, ServiceInfoIsTheRegisteredDocument) {
    const Answer answer = mPlatform.Get("ServiceInfo", "anything");
    EXPECT_EQ(0, answer.result);
    EXPECT_EQ(ServiceInfo("camera"), answer.reply);
    EXPECT_THAT(mLog.Texts(0), ElementsAre("Enter\n", "Out\n"));
}

TEST_F(ServerRequestsTest, StatusIsFreeWithoutATransport) {
    EXPECT_EQ("free", mPlatform.Get("TransStatus", "anything").reply);
    EXPECT_THAT(mLog.Texts(0), ElementsAre("Enter\n", "Out\n"));
}

TEST_F(ServerRequestsTest, StatusIsBusyForOneAndFreeForEveryOtherState) {
    const auto transport = OpenFakeChannel();
    for (const int status : {0, 1, 2, 3}) {
        transport->status = static_cast<LUM_TRANSPORT_STATUS_E>(status);
        EXPECT_EQ(status == 1 ? "busy" : "free", mPlatform.Get("TransStatus").reply) << status;
    }
}

TEST_F(ServerRequestsTest, StatusThatCannotBeToldFailsTheRequest) {
    const auto transport = OpenFakeChannel();
    transport->statusResult = -1;
    EXPECT_EQ(-1, mPlatform.Get("TransStatus").result);
    EXPECT_THAT(Errors(), ElementsAre("GetTransStatus failed!\n"));
    EXPECT_THAT(mLog.Texts(0), ElementsAre("Enter\n"));
}

TEST_F(ServerRequestsTest, OnlyMinusOneIsAFailureOfTheStatus) {
    const auto transport = OpenFakeChannel();
    transport->statusResult = 5;
    EXPECT_EQ("free", mPlatform.Get("TransStatus").reply);
    EXPECT_THAT(Errors(), IsEmpty());
}

TEST_F(ServerRequestsTest, VersionIsTheVersionText) {
    EXPECT_EQ("1.1.1", mPlatform.Get("GetVersion", "anything").reply);
}

TEST_F(ServerRequestsTest, VersionThatCannotBeToldFailsTheRequest) {
    const VersionFailure failure;
    EXPECT_EQ(-1, mPlatform.Get("GetVersion").result);
    EXPECT_THAT(Errors(), ElementsAre("GetVersion failed!\n"));
    EXPECT_THAT(mLog.Texts(0), ElementsAre("Enter\n"));
}

TEST_F(ServerRequestsTest, UnknownKeyLeavesTheReplyAsItWas) {
    for (const char* key : {"", "serviceinfo", "ServiceInfo ", "TransStatu", "Command", "Foo"}) {
        const Answer answer = mPlatform.Get(key, "as it was");
        EXPECT_EQ(0, answer.result) << key;
        EXPECT_EQ("as it was", answer.reply) << key;
    }
    EXPECT_THAT(Errors(), IsEmpty());
}

// ---- Put ----

TEST_F(ServerRequestsTest, StopTransportStopsAndDropsIt) {
    const auto transport = OpenFakeChannel();
    EXPECT_EQ(0, mPlatform.Put("StopTransport"));
    EXPECT_EQ(1, transport->stops);
    EXPECT_FALSE(IsKept(transport));
    EXPECT_EQ(2, mLog.Count(1, "cmd:StopTransport\n"));  // the descriptor's line and the module's
    EXPECT_THAT(mLog.Texts(0), ElementsAre("Enter\n", "Out\n"));
}

TEST_F(ServerRequestsTest, StopTransportWithoutOneSucceeds) {
    EXPECT_EQ(0, mPlatform.Put("StopTransport"));
    EXPECT_THAT(Errors(), IsEmpty());
}

TEST_F(ServerRequestsTest, StopTransportThatFailsKeepsTheTransport) {
    const auto transport = OpenFakeChannel();
    transport->stopResult = -1;
    EXPECT_EQ(-1, mPlatform.Put("StopTransport"));
    EXPECT_THAT(Errors(), ElementsAre("StopTransports failed!\n"));
    EXPECT_THAT(mLog.Texts(0), ElementsAre("Enter\n"));
    EXPECT_TRUE(IsKept(transport));
    transport->stopResult = 0;
}

TEST_F(ServerRequestsTest, OnlyMinusOneIsAFailureOfStopTransport) {
    const auto transport = OpenFakeChannel();
    transport->stopResult = -2;
    EXPECT_EQ(0, mPlatform.Put("StopTransport"));
    EXPECT_FALSE(IsKept(transport));
}

TEST_F(ServerRequestsTest, OtherPutsDoNothing) {
    const auto transport = OpenFakeChannel();
    for (const char* key : {"", "stoptransport", "StopTransports", "Foo"}) {
        EXPECT_EQ(0, mPlatform.Put(key, "value")) << key;
    }
    EXPECT_EQ(0, transport->stops);
    EXPECT_TRUE(IsKept(transport));
    EXPECT_TRUE(mLog.Has(1, "cmd:Foo\n"));
}

// ---- Post, Delete ----

TEST_F(ServerRequestsTest, PostsAreLoggedWithKeyAndValue) {
    EXPECT_EQ(0, Connect(3));
    EXPECT_EQ(1, mLog.Count(2, "Received coap request: [cmd:Connect, value:3].\n"));
    EXPECT_THAT(mLog.Texts(0), ElementsAre("Enter\n", "Out\n"));
}

TEST_F(ServerRequestsTest, UnknownPostsDoNothing) {
    for (const char* key : {"", "command", "connect", "Connect ", "Destroyed", "Foo"}) {
        EXPECT_EQ(0, mPlatform.Post(key, "not a number")) << key;
    }
    EXPECT_THAT(Errors(), IsEmpty());
    ExpectClients(0);
}

TEST_F(ServerRequestsTest, DeletesDoNothingAndLogNothing) {
    EXPECT_EQ(0, mPlatform.Delete("Connect", "3"));
    EXPECT_EQ(0, mPlatform.Delete("Foo"));
    EXPECT_THAT(mLog.Lines(), IsEmpty());
}

// ---- Connect and Destroy ----

TEST_F(ServerRequestsTest, ConnectAddsAClient) {
    EXPECT_EQ(0, Connect(3));
    EXPECT_EQ(1, mLog.Count(1, "client 3  on us!\n"));
    ExpectClients(1);
}

TEST_F(ServerRequestsTest, DestroyRemovesAClient) {
    Connect(3);
    Connect(4);
    mLog.Clear();
    EXPECT_EQ(0, Destroy(3));
    EXPECT_THAT(mLog.Texts(2), ElementsAre("Received coap request: [cmd:Destroy, value:3].\n",
                                           "There are 1 clients connected.\n", "Client[3] will be cleared.\n",
                                           "There are 1 clients connected.\n"));
    EXPECT_THAT(mLog.Texts(0), ElementsAre("Enter\n", "Enter\n", "Out\n", "Out\n"));
    ExpectClients(1);
}

TEST_F(ServerRequestsTest, DestroyOfAnUnknownClientFails) {
    Connect(3);
    mLog.Clear();
    EXPECT_EQ(-1, Destroy(4));
    EXPECT_THAT(Errors(), ElementsAre("No such clientID : 4 connect on us!!\n"));
    EXPECT_THAT(mLog.Texts(0), ElementsAre("Enter\n"));
    ExpectClients(1);
}

TEST_F(ServerRequestsTest, ClientThatConnectedTwiceStaysOnceAfterOneDestroy) {
    const auto transport = OpenFakeChannel();
    Connect(3);
    Connect(3);
    EXPECT_EQ(0, Destroy(3));
    EXPECT_EQ(0, transport->stops);
    EXPECT_TRUE(IsKept(transport));
    EXPECT_EQ(0, Destroy(3));
    EXPECT_EQ(1, transport->stops);
    EXPECT_EQ(-1, Destroy(3));
}

TEST_F(ServerRequestsTest, ListOfClientsHasAnEndAndLosesRepetitionsFirst) {
    Connect(1);
    Connect(2);
    for (int i = 0; i < 5000; ++i) {
        EXPECT_EQ(0, Connect(3));
    }
    mLog.Clear();
    EXPECT_EQ(0, Destroy(1));
    EXPECT_TRUE(mLog.Has(2, "There are 1023 clients connected.\n"));
    EXPECT_EQ(0, Destroy(2));
}

TEST_F(ServerRequestsTest, FullListOfClientsLosesTheOldest) {
    for (int client = 0; client <= 1024; ++client) {
        EXPECT_EQ(0, Connect(client));
    }
    EXPECT_EQ(-1, Destroy(0));
    EXPECT_EQ(0, Destroy(1));
    EXPECT_EQ(0, Destroy(1024));
}

TEST_F(ServerRequestsTest, LastDestroyStopsAndDropsTheTransport) {
    const auto transport = OpenFakeChannel();
    transport->status = LUM_TRANSPORT_STATUS_BUSY;
    Connect(3);
    EXPECT_EQ("busy", mPlatform.Get("TransStatus").reply);
    EXPECT_EQ(0, Destroy(3));
    EXPECT_EQ(1, mLog.Count(2, "No client connected, the transport will be stopped.\n"));
    EXPECT_EQ(2, mLog.Count(2, "There are 0 clients connected.\n"));
    EXPECT_EQ(1, transport->stops);
    EXPECT_FALSE(IsKept(transport));
    EXPECT_EQ("free", mPlatform.Get("TransStatus").reply);
}

TEST_F(ServerRequestsTest, LastDestroyWithoutATransportSucceeds) {
    Connect(3);
    EXPECT_EQ(0, Destroy(3));
    EXPECT_EQ(1, mLog.Count(2, "No client connected, the transport will be stopped.\n"));
    EXPECT_THAT(Errors(), IsEmpty());
}

TEST_F(ServerRequestsTest, TransportThatDoesNotStopFailsTheLastDestroy) {
    const auto transport = OpenFakeChannel();
    Connect(3);
    transport->stopResult = -1;
    EXPECT_EQ(-1, Destroy(3));
    EXPECT_THAT(Errors(), ElementsAre("StopTransports failed!\n", "ClearOneServerInfo : 3 failed!!\n"));
    EXPECT_TRUE(IsKept(transport));
    EXPECT_EQ(-1, Destroy(3));  // the client is gone all the same
    transport->stopResult = 0;
}

TEST_F(ServerRequestsTest, DestroyOrderFollowsTheListNotTheArrival) {
    Connect(3);
    Connect(4);
    Connect(3);
    EXPECT_EQ(0, Destroy(4));
    EXPECT_EQ(0, Destroy(3));
    EXPECT_EQ(0, Destroy(3));
    ExpectClients(0);
}

// Identifiers are read as a number that a text begins with.
TEST_F(ServerRequestsTest, LeadingNumberIsTheClient) {
    EXPECT_EQ(0, mPlatform.Post("Connect", " 12 and more"));
    EXPECT_TRUE(mLog.Has(1, "client 12  on us!\n")) << mLog.Dump();
    EXPECT_EQ(0, Destroy(12));
    EXPECT_EQ(0, mPlatform.Post("Connect", "-1"));
    EXPECT_TRUE(mLog.Has(1, "client -1  on us!\n")) << mLog.Dump();
    EXPECT_EQ(0, Destroy(-1));
}

TEST_F(ServerRequestsTest, ValueThatIsNoNumberRaisesOutOfTheHandler) {
    for (const char* key : {"Connect", "Destroy"}) {
        EXPECT_THROW(mModule->OnCoapPost(key, ""), std::invalid_argument);
        EXPECT_THROW(mModule->OnCoapPost(key, "three"), std::invalid_argument);
        EXPECT_THROW(mModule->OnCoapPost(key, "2147483648"), std::out_of_range);
    }
    EXPECT_THAT(Errors(), IsEmpty());
    ExpectClients(0);
}

TEST_F(ServerRequestsTest, ValueThatIsNoNumberFailsAtThePlatformAndNothingStaysLocked) {
    EXPECT_EQ(-1, mPlatform.Post("Connect", "three"));
    EXPECT_EQ(-1, mPlatform.Post("Destroy", ""));
    EXPECT_EQ(-1, mPlatform.Post("Destroy", "99999999999999999999"));
    EXPECT_EQ(0, Connect(3));
}

// ---- Devices that come and go ----

class DeviceEventTest : public ServerRequestsTest {
protected:
    int Remove(const std::string& address) { return mModule->OnRemoveDevice(7, address, 5683, "viewer"); }
};

TEST_F(DeviceEventTest, AddedDeviceIsIgnored) {
    EXPECT_EQ(0, mModule->OnAddDevice(7, "127.0.0.1", 5683, "viewer"));
    EXPECT_THAT(mLog.Lines(), IsEmpty());
}

TEST_F(DeviceEventTest, RemovalOfAnotherDeviceChangesNothing) {
    const auto transport = OpenFakeChannel();
    Connect(3);
    Subscribe(3, "face");
    mLog.Clear();
    EXPECT_EQ(0, Remove("127.0.0.2"));
    EXPECT_THAT(mLog.Texts(0), ElementsAre("Enter\n", "Out\n"));
    EXPECT_EQ(2U, mLog.Lines().size());
    EXPECT_TRUE(IsKept(transport));
    EXPECT_EQ(1U, mApplication.Notifications().size());
    ExpectClients(1);
}

TEST_F(DeviceEventTest, RemovalOfTheClientsDeviceClearsEverything) {
    const auto transport = OpenFakeChannel();
    Connect(5);
    Connect(3);
    Subscribe(3, "face");
    Subscribe(5, "face");
    mLog.Clear();
    EXPECT_EQ(0, Remove("127.0.0.1"));
    EXPECT_THAT(mLog.Texts(2),
                ElementsAre("The transport will be destoried while removing device.\n",
                            "Client[5] will be cleared.\n", "There are 2 clients connected.\n",
                            "Client[3] will be cleared.\n", "There are 2 clients connected.\n"));
    EXPECT_THAT(mLog.Texts(0), ElementsAre("Enter\n", "Enter\n", "Out\n", "Enter\n", "Out\n", "Out\n"));
    EXPECT_THAT(mApplication.Notifications(), ElementsAre(Subscribed(3, "face"), Subscribed(5, "face"),
                                                          Unsubscribed(5, "face"), Unsubscribed(3, "face")));
    EXPECT_EQ(1, transport->stops);
    EXPECT_FALSE(IsKept(transport));
    EXPECT_EQ(-1, Destroy(3));
    EXPECT_EQ(-1, Destroy(5));
}

TEST_F(DeviceEventTest, RemovalArrivesThroughThePlatform) {
    const auto transport = OpenFakeChannel();
    Connect(3);
    EXPECT_EQ(0, mPlatform.SendEvent(2, 7, "127.0.0.2", 5683, "viewer"));
    EXPECT_EQ(0, mPlatform.SendEvent(1, 7, "127.0.0.1", 5683, "viewer"));
    EXPECT_TRUE(IsKept(transport));
    EXPECT_EQ(0, mPlatform.SendEvent(2, 7, "127.0.0.1", 5683, "viewer"));
    EXPECT_FALSE(IsKept(transport));
    EXPECT_EQ(1, transport->stops);
}

TEST_F(DeviceEventTest, RemovalStopsTheTransportOfAClientThatNeverConnected) {
    const auto transport = OpenFakeChannel();
    EXPECT_EQ(0, Remove("127.0.0.1"));
    EXPECT_FALSE(IsKept(transport));
}

TEST_F(DeviceEventTest, RemovalWithoutATransportClearsTheClients) {
    OpenFakeChannel();
    Connect(3);
    mPlatform.Put("StopTransport");
    EXPECT_EQ(0, Remove("127.0.0.1"));
    EXPECT_EQ(-1, Destroy(3));
}

TEST_F(DeviceEventTest, TransportThatDoesNotStopFailsTheRemoval) {
    const auto transport = OpenFakeChannel();
    Connect(3);
    transport->stopResult = -1;
    EXPECT_EQ(-1, Remove("127.0.0.1"));
    EXPECT_THAT(Errors(), ElementsAre("StopTransports failed!\n"));
    EXPECT_TRUE(IsKept(transport));
    EXPECT_EQ(-1, Destroy(3));  // the clients are gone all the same
    transport->stopResult = 0;
}

TEST_F(DeviceEventTest, AddressIsTheOneOfTheLastSetup) {
    OpenFakeChannel();
    EXPECT_EQ("Succ", RequestSetup(SetupString(), "127.0.0.9").reply);
    const auto transport = mTransports.next;
    EXPECT_EQ(0, Remove("127.0.0.1"));
    EXPECT_TRUE(IsKept(transport));
    EXPECT_EQ(0, Remove("127.0.0.9"));
    EXPECT_FALSE(IsKept(transport));
}

TEST_F(DeviceEventTest, AddressStaysKnownAfterItsTransportIsGone) {
    OpenFakeChannel();
    EXPECT_EQ(0, Remove("127.0.0.1"));
    Connect(3);
    mLog.Clear();
    EXPECT_EQ(0, Remove("127.0.0.1"));
    EXPECT_TRUE(mLog.Has(2, "The transport will be destoried while removing device.\n"));
    EXPECT_EQ(-1, Destroy(3));
}

// A removal elsewhere on the network must not wait for a request in progress.
TEST_F(DeviceEventTest, AddressIsComparedBeforeTheLockIsTaken) {
    OpenFakeChannel();
    mApplication.onCommand = [this] { EXPECT_EQ(0, Remove("127.0.0.2")); };
    EXPECT_EQ(0, Cmd(3, "SetMode", "night"));
    EXPECT_EQ(1U, mApplication.Commands().size());
}

}  // namespace
}  // namespace lumora_test
