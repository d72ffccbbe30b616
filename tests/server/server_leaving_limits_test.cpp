// The same with a stop that never ends, without memory, with many clients at once, and with keys.
#include <new>
#include <thread>
#include <vector>

#include "library/callback_scope.h"
#include "tests/server/leaving_fixture.h"
#include "tests/support/fake_security.h"

namespace lumora_test {
namespace {

using lumoraAiModule::LumoraServerModule;
using std::chrono::milliseconds;
using testing::Contains;
using testing::ElementsAre;
using testing::SizeIs;

constexpr char STILL_CHANGING[] = "The data channel is still being stopped or opened for another request.\n";

// ---- Waits have an end ----

// A request that is delivered on the receive thread, from inside OnData. The stop in progress joins it.
TEST_F(ServerLeavingTest, RequestFromInsideOnDataDoesNotWaitForItself) {
    auto goodbye = Begin([this] { return Destroy(3); });
    const std::atomic<bool> running{false};
    {
        const lumora::DataCallbackScope scope(running);
        EXPECT_EQ(-1, mPlatform.Put("StopTransport"));
        EXPECT_EQ(-1, Destroy(3));
        EXPECT_EQ(-1, RequestSetup().result);
        EXPECT_EQ(0, mPlatform.Get("GetVersion").result);
    }
    EXPECT_TRUE(mGate.IsHolding());
    EXPECT_THAT(Errors(), ElementsAre(STILL_CHANGING, STILL_CHANGING, STILL_CHANGING));
    mGate.Release();
    EXPECT_EQ(0, goodbye.get());
}

TEST_F(ServerLeavingTest, RequestFromInsideOnDataIsServedWhileNoOtherChangesTheChannel) {
    mGate.Release();
    const std::atomic<bool> running{true};
    const lumora::DataCallbackScope scope(running);
    EXPECT_EQ(0, Destroy(3));
    EXPECT_EQ(1, mFirst->stops);
}

// A callback that never returns: the stop of its channel never ends.
class EndlessStopTest : public ServerLeavingTest {
protected:
    EndlessStopTest() {
        lumoraAiModule::ServerSources sources = Sources();
        sources.channelWait = milliseconds(50);
        mGate.Release();
        mModule->DeInitLumoraModule();
        mModule = std::make_unique<LumoraServerModule>("camera", sources);
        StartWith({"face", "body"});
        mSecond->onStop = [this] { mEndless.Pass(); };
        EXPECT_EQ("Succ", RequestSetup().reply);
        EXPECT_EQ(0, Connect(3));
        mGoodbye = std::async(std::launch::async, [this] { return Destroy(3); });
        EXPECT_TRUE(mEndless.WaitUntilReached());
        mLog.Clear();
    }
    ~EndlessStopTest() override {
        mEndless.Release();
        EXPECT_EQ(0, mGoodbye.get());
    }
    Gate mEndless;
    std::future<int> mGoodbye;
};

TEST_F(EndlessStopTest, RequestsThatChangeTheChannelFailInTheEnd) {
    EXPECT_EQ(-1, Destroy(3));
    EXPECT_EQ(-1, mPlatform.Put("StopTransport"));
    EXPECT_EQ(-1, RequestSetup().result);
    EXPECT_EQ(-1, Remove());
    EXPECT_TRUE(mEndless.IsHolding());
    EXPECT_THAT(Errors(), ElementsAre(STILL_CHANGING, STILL_CHANGING, STILL_CHANGING, STILL_CHANGING));
}

TEST_F(EndlessStopTest, TheOthersGoOn) {
    EXPECT_EQ(0, mPlatform.Get("ServiceInfo").result);
    EXPECT_EQ(0, Cmd(4, "SetMode", "night"));
    EXPECT_EQ(0, Connect(4));
    EXPECT_TRUE(mEndless.IsHolding());
}

TEST_F(EndlessStopTest, ModuleStopFailsInTheEnd) {
    EXPECT_EQ(-1, mModule->DeInitLumoraModule());
    EXPECT_TRUE(mEndless.IsHolding());
    EXPECT_THAT(Errors(), ElementsAre(STILL_CHANGING, "StopTransports failed!\n"));
}

// ---- Lack of memory ----

TEST_F(ServerLeavingTest, StopThatThrowsKeepsTheChannelAndWakesWhatWaits) {
    mFirst->onStop = [this] {
        if (mFirst->stops == 1) {
            mGate.Pass();
            throw std::bad_alloc();
        }
    };
    auto goodbye = Begin([this] { return Destroy(3); });
    auto put = BeginWaitingPut();
    mGate.Release();
    EXPECT_EQ(-1, goodbye.get());
    EXPECT_EQ(0, put.get());
    EXPECT_EQ(2, mFirst->stops);
    EXPECT_EQ(0, mPlatform.Put("StopTransport"));
    EXPECT_EQ(2, mFirst->stops);
}

TEST_F(ServerLeavingTest, OpeningThatThrowsKeepsNoneWaiting) {
    mFirst->onStop = [] {};
    mSecond->onCreate = [](TransType) { throw std::bad_alloc(); };
    EXPECT_EQ(-1, RequestSetup().result);
    mSecond->onCreate = [](TransType) {};
    EXPECT_EQ("Succ", RequestSetup().reply);
    EXPECT_EQ(1, mSecond->stops);
}

TEST_F(ServerLeavingTest, GoodbyeWithoutMemoryCanBeRepeatedByStopTransport) {
    mGate.Release();
    int failures = 0;
    for (bool hasFailed = true; hasFailed;) {
        ASSERT_LT(failures, 100);
        EXPECT_EQ(0, Subscribe(3, "face"));
        FailAllocation(failures + 1);
        const int result = Destroy(3);
        hasFailed = !AllocationFailurePending();
        ResetAllocationFaults();
        failures += hasFailed ? 1 : 0;
        EXPECT_EQ(hasFailed ? -1 : 0, result) << failures;
        EXPECT_EQ(0, mPlatform.Put("StopTransport"));
        EXPECT_EQ(0, SetupSucceeds());
        EXPECT_EQ(0, Connect(3));
        Unsubscribe(3, "face");  // fails after the goodbye that succeeds
    }
    EXPECT_LT(0, failures);
}

// ---- Several at once ----

TEST_F(ServerLeavingTest, TheLastOfManyGoodbyesAtOnceStopsTheChannel) {
    mGate.Release();
    constexpr int CLIENTS = 20;
    for (int clientID = 4; clientID < 3 + CLIENTS; ++clientID) {
        EXPECT_EQ(0, Connect(clientID));
        EXPECT_EQ(0, Subscribe(clientID, "face"));
    }
    std::vector<std::future<int>> goodbyes;
    for (int clientID = 3; clientID < 3 + CLIENTS; ++clientID) {
        goodbyes.push_back(std::async(std::launch::async, [this, clientID] { return Destroy(clientID); }));
    }
    for (auto& goodbye : goodbyes) {
        EXPECT_EQ(0, goodbye.get());
    }
    EXPECT_EQ(1, mFirst->stops);
    EXPECT_THAT(mApplication.Notifications(), SizeIs(2 * (CLIENTS - 1)));
}

TEST_F(ServerLeavingTest, ManyRequestsAtOnceEndWithOneChannel) {
    mGate.Release();
    mFirst->onStop = mSecond->onStop = [] { std::this_thread::yield(); };
    std::vector<std::future<void>> clients;
    for (int clientID = 4; clientID < 8; ++clientID) {
        clients.push_back(std::async(std::launch::async, [this, clientID] {
            for (int i = 0; i < 20; ++i) {
                EXPECT_EQ("Succ", RequestSetup().reply);
                EXPECT_EQ(0, Connect(clientID));
                EXPECT_EQ(0, Subscribe(clientID, "face"));
                EXPECT_EQ(0, mPlatform.Put("StopTransport"));
                EXPECT_EQ(0, Destroy(clientID));
            }
        }));
    }
    for (auto& client : clients) {
        client.get();
    }
    EXPECT_EQ("Succ", RequestSetup().reply);
    const int stops = mSecond->stops;
    EXPECT_EQ(0, Destroy(3));
    EXPECT_EQ(stops + 1, mSecond->stops);
    EXPECT_EQ(-1, Send("face", "abc"));
}

// ---- With keys ----

thread_local unsigned char t_node = 0;

int RequesterOfThread(LinkRequester* requester) {
    *requester = {};
    requester->identity[0] = 'k';
    requester->node[15] = t_node;
    return t_node != 0 ? 1 : 0;
}

// Node 1 owns the channel to client 3.
class ServerLeavingWithKeysTest : public ServerLeavingTest {
protected:
    ServerLeavingWithKeysTest() {
        mSecurity.table.GetRequester = RequesterOfThread;
        mFirst->onStop = [] {};
        mTransports.next = mFirst;
        EXPECT_EQ(0, As(1, [this] { return SetupSucceeds(); })());
        mFirst->onStop = [this] { mGate.Pass(); };
        mTransports.next = mSecond;
        mLog.Clear();
    }
    static Request As(unsigned char node, const Request& request) {
        return [node, request] {
            t_node = node;
            const int result = request();
            t_node = 0;
            return result;
        };
    }
    std::future<int> BeginWaitingConnect() {
        return BeginWaiting(As(2, [this] { return Connect(9); }), 2,
                            "Received coap request: [cmd:Connect, value:9].\n");
    }
    FakeSecurity mSecurity;
};

TEST_F(ServerLeavingWithKeysTest, StrangerIsRefusedThatAsksDuringATakeOver) {
    auto setup = Begin(As(1, [this] { return SetupSucceeds(); }));
    auto stranger = BeginWaitingConnect();
    mGate.Release();
    EXPECT_EQ(0, setup.get());
    EXPECT_EQ(-1, stranger.get());
    EXPECT_THAT(Errors(), Contains("The data channel belongs to a node with the key \"k\"; another one's "
                                   "request is refused.\n"));
}

TEST_F(ServerLeavingWithKeysTest, StrangerThatAsksDuringTheOwnersGoodbyeIsServedAfterIt) {
    auto goodbye = Begin(As(1, [this] { return Destroy(3); }));
    auto stranger = BeginWaitingConnect();
    EXPECT_EQ(0, As(2, [this] { return Cmd(9, "SetMode", "night"); })());
    EXPECT_TRUE(mGate.IsHolding());
    mGate.Release();
    EXPECT_EQ(0, goodbye.get());
    EXPECT_EQ(0, stranger.get());
}

// It was asked for while the channel was free, and is decided when it belongs to the node that came first.
TEST_F(ServerLeavingWithKeysTest, StrangersStopTransportDoesNotEndTheChannelThatWasOpenedWhileItWaited) {
    auto setup = Begin(As(1, [this] { return SetupSucceeds(); }));
    auto put =
        BeginWaiting(As(2, [this] { return mPlatform.Put("StopTransport"); }), 1, "cmd:StopTransport\n");
    mGate.Release();
    EXPECT_EQ(0, setup.get());
    EXPECT_EQ(-1, put.get());
    EXPECT_EQ(0, mSecond->stops);
}

}  // namespace
}  // namespace lumora_test
