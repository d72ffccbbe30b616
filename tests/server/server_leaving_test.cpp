// Requests of several clients at once, while one of them stops or opens the data channel and that takes time.
#include <thread>

#include "tests/server/leaving_fixture.h"

namespace lumora_test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

constexpr char UNKNOWN_CLIENT[] = "No such clientID : 3 connect on us!!\n";

// ---- What does not touch the channel goes on ----

TEST_F(ServerLeavingTest, GoodbyeHoldsUpNoOtherRequest) {
    auto goodbye = Begin([this] { return Destroy(3); });
    ExpectOthersGoOn();
    mGate.Release();
    EXPECT_EQ(0, goodbye.get());
}

TEST_F(ServerLeavingTest, StopTransportHoldsUpNoOtherRequest) {
    auto put = Begin([this] { return mPlatform.Put("StopTransport"); });
    ExpectOthersGoOn();
    mGate.Release();
    EXPECT_EQ(0, put.get());
}

TEST_F(ServerLeavingTest, RemovalHoldsUpNoOtherRequest) {
    auto removal = Begin([this] { return Remove(); });
    ExpectOthersGoOn();
    mGate.Release();
    EXPECT_EQ(0, removal.get());
}

TEST_F(ServerLeavingTest, TakeOverHoldsUpNoOtherRequest) {
    auto setup = Begin([this] { return SetupSucceeds(); });
    ExpectOthersGoOn();
    mGate.Release();
    EXPECT_EQ(0, setup.get());
}

TEST_F(ServerLeavingTest, ConnectingBackHoldsUpNoOtherRequest) {
    mFirst->onStop = [] {};
    mSecond->onCreate = [this](TransType type) {
        if (type == TransType::SERVER_SEND) {
            mGate.Pass();
        }
    };
    auto setup = Begin([this] { return SetupSucceeds(); });
    ExpectOthersGoOn();
    mGate.Release();
    EXPECT_EQ(0, setup.get());
}

TEST_F(ServerLeavingTest, StopOfAChannelThatCannotConnectBackHoldsUpNoOtherRequest) {
    mFirst->onStop = [] {};
    mSecond->sendingResult = -1;
    mSecond->onStop = [this] { mGate.Pass(); };
    auto setup = Begin([this] { return RequestSetup().result; });
    ExpectOthersGoOn();
    mGate.Release();
    EXPECT_EQ(-1, setup.get());
    mSecond->onStop = [] {};
}

TEST_F(ServerLeavingTest, ClientThatComesDuringAGoodbyeStaysWithItsSubscription) {
    auto goodbye = Begin([this] { return Destroy(3); });
    EXPECT_EQ(0, Connect(4));
    EXPECT_EQ(0, Subscribe(4, "face"));
    mGate.Release();
    EXPECT_EQ(0, goodbye.get());
    EXPECT_EQ("Succ", RequestSetup().reply);
    EXPECT_EQ(0, Send("face", "abc"));
    EXPECT_THAT(mSecond->sent, ElementsAre(ServerFrameBytes("\x04", "face", "abc")));
    EXPECT_EQ(0, Destroy(4));
    EXPECT_EQ(1, mSecond->stops);
}

// ---- What changes the channel waits for its turn ----

TEST_F(ServerLeavingTest, SecondGoodbyeOfAClientFailsAfterTheFirst) {
    auto first = Begin([this] { return Destroy(3); });
    auto second = BeginWaitingGoodbye();
    EXPECT_FALSE(mLog.Has(4, UNKNOWN_CLIENT));
    mGate.Release();
    EXPECT_EQ(0, first.get());
    EXPECT_EQ(-1, second.get());
    EXPECT_THAT(Errors(), ElementsAre(UNKNOWN_CLIENT));
    EXPECT_EQ(1, mFirst->stops);
}

TEST_F(ServerLeavingTest, StopTransportDuringAGoodbyeFindsNoChannel) {
    auto goodbye = Begin([this] { return Destroy(3); });
    auto put = BeginWaitingPut();
    mGate.Release();
    EXPECT_EQ(0, goodbye.get());
    EXPECT_EQ(0, put.get());
    EXPECT_EQ(1, mFirst->stops);
    EXPECT_THAT(Errors(), IsEmpty());
}

TEST_F(ServerLeavingTest, SetupDuringAGoodbyeOpensItsChannelAfterTheOldOne) {
    auto goodbye = Begin([this] { return Destroy(3); });
    auto setup = BeginWaitingSetup();
    EXPECT_THAT(mTransports.protocols, SizeIs(1));
    EXPECT_EQ(0, Send("face", "to the old channel"));
    EXPECT_THAT(mSecond->directions, IsEmpty());
    mGate.Release();
    EXPECT_EQ(0, goodbye.get());
    EXPECT_EQ(0, setup.get());
    EXPECT_THAT(mSecond->directions, SizeIs(2));
    EXPECT_EQ(1, mFirst->stops);
    EXPECT_EQ(0, mSecond->stops);
    EXPECT_THAT(Errors(), IsEmpty());
}

TEST_F(ServerLeavingTest, GoodbyeDuringATakeOverEndsTheNewChannel) {
    auto setup = Begin([this] { return SetupSucceeds(); });
    auto goodbye = BeginWaitingGoodbye();
    mGate.Release();
    EXPECT_EQ(0, setup.get());
    EXPECT_EQ(0, goodbye.get());
    EXPECT_THAT(mSecond->directions, SizeIs(2));
    EXPECT_EQ(1, mSecond->stops);
}

TEST_F(ServerLeavingTest, SetupDuringATakeOverGetsTheChannel) {
    auto first = Begin([this] { return SetupSucceeds(); });
    auto second = BeginWaitingSetup();
    mGate.Release();
    EXPECT_EQ(0, first.get());
    EXPECT_EQ(0, second.get());
    EXPECT_EQ(1, mFirst->stops);
    EXPECT_EQ(1, mSecond->stops);  // both setups get this one
    EXPECT_THAT(mSecond->directions, SizeIs(4));
}

TEST_F(ServerLeavingTest, RemovalDuringAGoodbyeClearsTheOtherClients) {
    auto goodbye = Begin([this] { return Destroy(3); });
    EXPECT_EQ(0, Connect(4));
    EXPECT_EQ(0, Subscribe(4, "face"));
    auto removal = BeginWaiting([this] { return Remove(); }, 0, "Enter\n");
    mGate.Release();
    EXPECT_EQ(0, goodbye.get());
    EXPECT_EQ(0, removal.get());
    EXPECT_THAT(mApplication.Notifications(), ElementsAre(Subscribed(4, "face"), Unsubscribed(4, "face")));
    EXPECT_EQ(1, mFirst->stops);
}

TEST_F(ServerLeavingTest, RemovalOfAClientWhoseChannelIsTakenOverLeavesTheNewOne) {
    auto setup = Begin([this] { return RequestSetup(SetupString(), "127.0.0.5").result; });
    auto removal = BeginWaiting([this] { return Remove(); }, 0, "Enter\n");
    mGate.Release();
    EXPECT_EQ(0, setup.get());
    EXPECT_EQ(0, removal.get());
    EXPECT_EQ(0, mSecond->stops);
    EXPECT_FALSE(mLog.Has(2, "The transport will be destoried while removing device.\n"));
}

TEST_F(ServerLeavingTest, FailedStopIsTriedAgainByTheWaitingRequest) {
    mFirst->stopResult = -1;
    auto goodbye = Begin([this] { return Destroy(3); });
    auto put = BeginWaitingPut();
    mGate.Release();
    EXPECT_EQ(-1, goodbye.get());
    EXPECT_EQ(-1, put.get());
    EXPECT_EQ(2, mFirst->stops);
    EXPECT_THAT(Errors(), ElementsAre("StopTransports failed!\n", "ClearOneServerInfo : 3 failed!!\n",
                                      "StopTransports failed!\n"));
}

// A platform whose Exit does not wait for requests in progress.
TEST_F(ServerLeavingTest, ModuleStopDuringAGoodbyeWaitsForItsEnd) {
    auto goodbye = Begin([this] { return Destroy(3); });
    auto stop =
        BeginWaiting([this] { return mModule->DeInitLumoraModule(); }, 2, "Clear coap resourse success.\n");
    mGate.Release();
    EXPECT_EQ(0, goodbye.get());
    EXPECT_EQ(0, stop.get());
    EXPECT_EQ(1, mFirst->stops);
    EXPECT_THAT(Errors(), IsEmpty());
}

TEST_F(ServerLeavingTest, ModuleStopIsNoReasonForOthersToWait) {
    auto stop = Begin([this] { return mModule->DeInitLumoraModule(); });
    EXPECT_EQ(0, mPlatform.Get("GetVersion").result);
    EXPECT_TRUE(mGate.IsHolding());
    auto put = BeginWaitingPut();
    mGate.Release();
    EXPECT_EQ(0, stop.get());
    EXPECT_EQ(0, put.get());
    EXPECT_EQ(1, mFirst->stops);
}

TEST_F(ServerLeavingTest, ModuleIsNotDestroyedBeforeAGoodbyeHasEnded) {
    auto goodbye = Begin([this] { return Destroy(3); });
    std::atomic<bool> isGone{false};
    std::thread end([&] {
        mModule.reset();
        isGone = true;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    EXPECT_FALSE(isGone);
    mGate.Release();
    EXPECT_EQ(0, goodbye.get());
    end.join();
}

}  // namespace
}  // namespace lumora_test
