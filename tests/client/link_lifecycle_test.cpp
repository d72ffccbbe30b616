// Start and stop of the link that all clients share.
#include <thread>

#include "tests/client/client_fixture.h"
#include "tests/support/system_faults.h"

namespace lumoraAiModule {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class LinkLifecycleTest : public ClientTest {
protected:
    // What a failed start logs at level 4, in order.
    std::vector<std::string> FailToStart(int clientID) {
        mLog.Clear();
        EXPECT_EQ(-1, mModule->InitLumoraModule(clientID)) << mLog.Dump();
        return mLog.Texts(4);
    }
    // If memory runs out in a place without a message, the exported functions turn the exception into -1.
    int InitOrThrow(int clientID) {
        try {
            return mModule->InitLumoraModule(clientID);
        } catch (const std::bad_alloc&) {
            return -1;
        }
    }
};

TEST_F(LinkLifecycleTest, FirstClientStartsTheLink) {
    const int clientID = TakeId();
    EXPECT_THAT(mPlatform.Calls(), IsEmpty());
    mLog.Clear();
    EXPECT_EQ(0, mModule->InitLumoraModule(clientID));
    EXPECT_THAT(mPlatform.Calls(), ElementsAre("GetLinkPlatform", "Init", "RegisterResource", "Run"));
    EXPECT_EQ("client [1] Enter.\n", mLog.Texts(0).front());
    EXPECT_EQ("Out\n", mLog.Texts(0).back());
    EXPECT_THAT(mLog.Texts(4), IsEmpty());
}

TEST_F(LinkLifecycleTest, ProcessAnnouncesItselfByTheFirstClientsType) {
    const int clientID = TakeId("phone");
    EXPECT_EQ(0, mModule->InitLumoraModule(clientID));
    ASSERT_NE(nullptr, mPlatform.Resource());
    EXPECT_STREQ("phone", mPlatform.Resource()->DoGetDescriptor(mPlatform.Resource()));
}

TEST_F(LinkLifecycleTest, FurtherClientsUseTheRunningLink) {
    NewClient();
    const int second = TakeId();
    mLog.Clear();
    EXPECT_EQ(0, mModule->InitLumoraModule(second));
    EXPECT_THAT(mLog.Texts(3), ElementsAre("Lumora Module has been initiliazed!\n"));
    EXPECT_EQ(1, mPlatform.CallCount("Run"));
    EXPECT_EQ(1, mPlatform.CallCount("RegisterResource"));
}

TEST_F(LinkLifecycleTest, StartFailsWithThePlatform) {
    const struct {
        std::function<void(bool fails)> step;
        std::vector<std::string> errors;
        int runs;
    } cases[] = {
        {[this](bool fails) { mPlatform.givesHandles = !fails; },
         {"Create SmarthomeLink failure!\n", "InitializeCoapService failed!\n"},
         0},
        {[this](bool fails) { mPlatform.initResult = fails ? -1 : 0; },
         {"Create SmarthomeLink failure!\n", "InitializeCoapService failed!\n"},
         0},
        {[this](bool fails) { mPlatform.registerResult = fails ? -1 : 0; },
         {"mSmartHomeLink registerDeviceDescriptor failed!\n", "StartCoapService failed!\n"},
         0},
        {[this](bool fails) { mPlatform.runResult = fails ? -1 : 0; },
         {"mSmartHomeLink running failed!!\n", "StartCoapService failed!\n"},
         1},
    };
    const int clientID = TakeId();
    for (const auto& failing : cases) {
        failing.step(true);
        EXPECT_EQ(failing.errors, FailToStart(clientID));
        failing.step(false);
        EXPECT_EQ(failing.runs, mPlatform.CallCount("Run"));
        EXPECT_EQ(0, mPlatform.LiveHandles());
    }
}

// Whichever allocation of the start fails, the start fails as a whole and can be repeated.
TEST_F(LinkLifecycleTest, LackOfMemoryAtAnyPointOfTheStartFailsItAsAWhole) {
    bool reachedEnd = false;
    for (int n = 1; !reachedEnd; ++n) {
        const int clientID = TakeId();
        const int runs = mPlatform.CallCount("Run");
        lumora_test::FailAllocation(n);
        const int result = InitOrThrow(clientID);
        reachedEnd = lumora_test::AllocationFailurePending();
        lumora_test::ResetAllocationFaults();
        EXPECT_EQ(reachedEnd ? 0 : -1, result) << "allocation " << n;
        EXPECT_EQ(reachedEnd ? 1 : 0, mPlatform.CallCount("Run") - runs) << "allocation " << n;
        EXPECT_EQ(0, mModule->InitLumoraModule(clientID));
        EndEverything();
    }
    EXPECT_TRUE(mLog.Has(4, "Create mDevDescriptor failure!\n")) << mLog.Dump();
    EXPECT_TRUE(mLog.Has(4, "Create TransManagerFactory failure!\n"));
    EXPECT_TRUE(mLog.Has(4, "InitializeCoapService failed!\n"));
}

TEST_F(LinkLifecycleTest, FailedStartKeepsTheClientsRecordAndId) {
    mPlatform.runResult = -1;
    FailToStart(TakeId());
    EXPECT_EQ(-1, LumoraClientModule::DestoryInstance());
    EXPECT_THAT(ClientModuleProbe::IdsInUse(), ElementsAre(1U));
    EXPECT_EQ(0, mModule->RegisterEvent(1, RemovalCallback));
}

TEST_F(LinkLifecycleTest, NextClientStartsAgainAfterAFailedStart) {
    mPlatform.runResult = -1;
    FailToStart(TakeId());
    mPlatform.runResult = 0;
    AddDevice("camera");
    EXPECT_EQ(2, NewClient());
    EXPECT_EQ(2, mPlatform.CallCount("Run"));
    EXPECT_EQ(1, mPlatform.LiveHandles());
    EXPECT_EQ(0, Search());
}

TEST_F(LinkLifecycleTest, SameClientStartsAgainAfterAFailedStart) {
    mPlatform.registerResult = -1;
    FailToStart(TakeId());
    mPlatform.registerResult = 0;
    mLog.Clear();
    EXPECT_EQ(0, mModule->InitLumoraModule(1));
    EXPECT_THAT(mLog.Texts(3), IsEmpty());
    EXPECT_EQ(1, mPlatform.CallCount("Run"));
}

TEST_F(LinkLifecycleTest, ClientOfAFailedStartCannotBeTheLastToLeave) {
    mPlatform.runResult = -1;
    FailToStart(TakeId());
    mLog.Clear();
    EXPECT_EQ(-1, RemoveClient(1));
    EXPECT_EQ(0U, mClientsLeft);
    EXPECT_THAT(mLog.Texts(4), ElementsAre("mSmartHomeLink is not running, you can't close it!\n",
                                           "CloseCoapService failed!!\n"));
    EXPECT_EQ(0, mPlatform.CallCount("Exit"));
}

TEST_F(LinkLifecycleTest, OnlyTheLastClientStopsTheLink) {
    NewClients(2);
    mLog.Clear();
    EXPECT_EQ(0, RemoveClient(1));
    EXPECT_THAT(mLog.Texts(0), ElementsAre("Out\n"));
    EXPECT_EQ(0, mPlatform.CallCount("Exit"));
    mLog.Clear();
    EXPECT_EQ(0, RemoveClient(2));
    EXPECT_EQ(1, mPlatform.CallCount("Exit"));
    EXPECT_THAT(mLog.Texts(0), ElementsAre("No client Instance Out\n"));
    EXPECT_LT(mLog.IndexOf(1, "CloseCoapService --out!\n"), mLog.IndexOf(1, "will unlock\n"));
    EXPECT_THAT(mLog.Texts(4), IsEmpty());
}

TEST_F(LinkLifecycleTest, ClientsMayLeaveInAnyOrder) {
    NewClients(3);
    EXPECT_EQ(0, RemoveClient(3));
    EXPECT_EQ(0, RemoveClient(1));
    EXPECT_EQ(0, mPlatform.CallCount("Exit"));
    EXPECT_EQ(0, RemoveClient(2));
    EXPECT_EQ(1, mPlatform.CallCount("Exit"));
}

TEST_F(LinkLifecycleTest, StoppedLinkFindsNothingAndGivesNoHandles) {
    AddDevice("camera");
    NewClient();
    EXPECT_EQ(0, Search());
    EXPECT_EQ(0, RemoveClient(1));
    EXPECT_EQ(0, mPlatform.LiveProxies());
    mLog.Clear();
    EXPECT_EQ(-1, Search());
    ExpectOnlyError("mSmartHomeLink is not running, you can't GetNetDevices\n");
}

TEST_F(LinkLifecycleTest, LinkThatDoesNotExitFailsTheLastRemovalButTheIdIsFree) {
    NewClient();
    mPlatform.exitResult = -1;
    mLog.Clear();
    EXPECT_EQ(-1, RemoveClient(1));
    EXPECT_THAT(mLog.Texts(4),
                ElementsAre("mSmartHomeLink->Exit() failed!\n", "CloseCoapService failed!!\n"));
    EXPECT_EQ(0U, mClientsLeft);
    EXPECT_THAT(ClientModuleProbe::IdsInUse(), IsEmpty());
    mLog.Clear();
    EXPECT_EQ(-1, Search());
    ExpectOnlyError("mSmartHomeLink is not running, you can't GetNetDevices\n");
}

TEST_F(LinkLifecycleTest, LinkStartsAgainAfterAFailedExit) {
    NewClient();
    mPlatform.exitResult = -1;
    EXPECT_EQ(-1, RemoveClient(1));
    mPlatform.exitResult = 0;
    AddDevice("camera");
    EXPECT_EQ(1, NewClient());
    EXPECT_EQ(2, mPlatform.CallCount("Run"));
    EXPECT_EQ(1, mPlatform.LiveHandles());
    EXPECT_EQ(0, Search());
}

TEST_F(LinkLifecycleTest, LinkStartsAgainAfterTheLastClientLeft) {
    AddDevice("camera");
    NewClient();
    EXPECT_EQ(0, RemoveClient(1));
    EXPECT_EQ(1, NewClient());
    EXPECT_EQ(2, mPlatform.CallCount("Run"));
    EXPECT_EQ(0, Search());
}

TEST_F(LinkLifecycleTest, HandlesEndWithTheLastClient) {
    AddDevice("camera");
    AddDevice("reader", 5684);
    NewClient();
    EXPECT_EQ(0, Search());
    EXPECT_EQ(1U, Handle(1, "camera"));
    EXPECT_EQ(0, RemoveClient(1));
    NewClient();
    EXPECT_EQ(0, Search());
    EXPECT_EQ(1U, Handle(1, "reader"));
}

// The platform hands out events until its Exit has returned, and its Exit waits for them.
TEST_F(LinkLifecycleTest, RemovalEventWhileTheLinkExitsIsHandled) {
    AddDevice("camera");
    NewClient();
    EXPECT_EQ(0, Search());
    EXPECT_EQ(1U, Handle(1, "camera"));
    int result = -1;
    mPlatform.onExit = [&] {
        std::thread([&] { result = mModule->OnRemoveDevice(7, "127.0.0.1", 5683, "camera"); }).join();
    };
    EXPECT_EQ(0, RemoveClient(1));
    EXPECT_EQ(0, result);
    EXPECT_TRUE(mLog.Has(1, "We will clear camera 's resource, handle = 1!\n"));
}

TEST_F(LinkLifecycleTest, EventAfterTheInstancesEndIsRefused) {
    NewClient();
    EXPECT_EQ(0, RemoveClient(1));
    mModule.reset();
    EXPECT_EQ(0, LumoraClientModule::DestoryInstance());
    EXPECT_EQ(-1, mPlatform.SendEvent(2, 7, "127.0.0.1", 5683, "camera"));
    EXPECT_TRUE(mLog.Has(1, "g_mNotifyCallback is nullptr, can't callback!\n"));
}

// ---- With a data channel ----

using LastClientTest = ChannelTest;

TEST_F(LastClientTest, TransportIsStoppedAfterTheLinkHasLeftAndWithoutTheLock) {
    Connect(1, Camera());
    mLog.Clear();
    bool locked = true;
    bool leftFirst = false;
    WhenLogged(2, "The transport will be stopped.\n", [&] {
        locked = ClientModuleProbe::IsLocked(*mModule);
        leftFirst = mPlatform.CallCount("Exit") == 1 && mLog.Has(1, "will unlock\n");
    });
    EXPECT_EQ(0, RemoveClient(1));
    EXPECT_FALSE(locked);
    EXPECT_TRUE(leftFirst);
    EXPECT_TRUE(mLog.Has(2, "The transport has been stopped.\n"));
    EXPECT_TRUE(mToClient.SeesEnd());
    EXPECT_TRUE(mFromClient.SeesEnd());
    EXPECT_EQ(0, mPlatform.LiveProxies());
}

TEST_F(LastClientTest, LinkIsLeftWithoutTheLock) {
    bool locked = true;
    mPlatform.onExit = [&] { locked = ClientModuleProbe::IsLocked(*mModule); };
    EXPECT_EQ(0, RemoveClient(1));
    EXPECT_FALSE(locked);
}

TEST_F(LastClientTest, FrameThatArrivesDuringTheStopFindsNoCallback) {
    const unsigned int camera = Camera();
    RegisterEvents(1, camera);
    Connect(1, camera);
    WhenLogged(1, "CloseCoapService --out!\n", [&] {
        mToClient.Send(lumora_test::ServerFrameBytes("\x01", "face", "late"));
        EXPECT_TRUE(mLog.WaitFor(4, "ClientID : 1 has no Register Event Callback!!\n"));
    });
    EXPECT_EQ(0, RemoveClient(1));
    EXPECT_THAT(ReceivedEvents(), IsEmpty());
}

TEST_F(LastClientTest, ConnectedClientThatIsNotTheLastLeavesWithoutAWord) {
    NewClients(1);
    const unsigned int camera = Camera();
    Connect(1, camera);
    ForgetAsked();
    EXPECT_EQ(0, RemoveClient(1));
    EXPECT_THAT(Asked(), IsEmpty());
    EXPECT_EQ(0, SendData(2, camera, "x"));
    EXPECT_EQ(lumora_test::ClientFrame(2, "x"), mFromClient.Receive(7));
}

TEST_F(LastClientTest, NewClientUnderTheSameIdIsNotConnected) {
    NewClients(1);
    const unsigned int camera = Camera(2);
    Connect(1, camera);
    EXPECT_EQ(0, RemoveClient(1));
    EXPECT_EQ(1, NewClient());
    EXPECT_FALSE(IsConnected(1, camera));
}

TEST_F(LastClientTest, TransportThatAFailedExitLeftRunningEndsWithTheInstance) {
    Connect(1, Camera());
    mPlatform.exitResult = -1;
    EXPECT_EQ(-1, RemoveClient(1));
    EXPECT_FALSE(mLog.Has(2, "The transport will be stopped.\n"));
    mModule.reset();
    EXPECT_EQ(0, LumoraClientModule::DestoryInstance());
    EXPECT_TRUE(mToClient.SeesEnd());
    EXPECT_TRUE(mLog.Has(2, "The client reveived thread exit.\n"));
}

}  // namespace
}  // namespace lumoraAiModule
