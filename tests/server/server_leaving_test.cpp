// Requests of several clients at once, while one of them stops or opens the data channel and that takes time.
#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <new>

#include "library/callback_scope.h"
#include "tests/server/server_fixture.h"
#include "tests/support/fake_security.h"

namespace lumora_test {
namespace {

using lumoraAiModule::LumoraServerModule;
using std::chrono::milliseconds;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

constexpr char STILL_CHANGING[] = "The data channel is still being stopped or opened for another request.\n";
constexpr char UNKNOWN_CLIENT[] = "No such clientID : 3 connect on us!!\n";

// A place at which the thread that comes first is held until it is released.
class Gate {
public:
    ~Gate() { Release(); }
    void Pass() {
        if (!mReached.exchange(true)) {
            EXPECT_TRUE(Eventually([this] { return mReleased.load(); }));
        }
    }
    bool WaitUntilReached() const {
        return Eventually([this] { return mReached.load(); });
    }
    void Release() { mReleased = true; }
    bool IsHolding() const { return mReached && !mReleased; }

private:
    std::atomic<bool> mReached{false};
    std::atomic<bool> mReleased{false};
};

// A channel to client 3. Its stop is held at a gate.
class ServerLeavingTest : public ServerModuleTest {
protected:
    using Request = std::function<int()>;

    ServerLeavingTest() {
        StartWith({"face", "body"});
        mFirst->onStop = [this] { mGate.Pass(); };
        EXPECT_EQ("Succ", RequestSetup().reply);
        EXPECT_EQ(0, Connect(3));
        mTransports.next = mSecond;
        mLog.Clear();
    }
    ~ServerLeavingTest() override {
        mGate.Release();
        mFirst->stopResult = 0;
    }

    // A request on a thread of its own, which is now held at the gate.
    std::future<int> Begin(const Request& request) {
        auto result = std::async(std::launch::async, request);
        EXPECT_TRUE(mGate.WaitUntilReached());
        return result;
    }
    // A request on a thread of its own that has been received and does not end before the gate opens.
    std::future<int> BeginWaiting(const Request& request, int level, const std::string& received) {
        const int before = mLog.Count(level, received);
        auto result = std::async(std::launch::async, request);
        EXPECT_TRUE(Eventually([&] { return mLog.Count(level, received) > before; })) << mLog.Dump();
        EXPECT_EQ(std::future_status::timeout, result.wait_for(milliseconds(30)));
        return result;
    }
    std::future<int> BeginWaitingGoodbye(int clientID = 3) {
        return BeginWaiting(
            [this, clientID] { return Destroy(clientID); }, 2,
            "Received coap request: [cmd:Destroy, value:" + std::to_string(clientID) + "].\n");
    }
    std::future<int> BeginWaitingPut() {
        return BeginWaiting([this] { return mPlatform.Put("StopTransport"); }, 1, "cmd:StopTransport\n");
    }
    std::future<int> BeginWaitingSetup() {
        return BeginWaiting([this] { return SetupSucceeds(); }, 2,
                            "Reveived remote transport info: " + SetupString() + ".\n");
    }
    int SetupSucceeds() { return RequestSetup().reply == "Succ" ? 0 : -1; }
    int Remove() { return mModule->OnRemoveDevice(7, "127.0.0.1", 5683, "viewer"); }

    // What does not touch the channel is answered while another request is at the gate.
    void ExpectOthersGoOn() {
        EXPECT_EQ(0, mPlatform.Get("ServiceInfo").result);
        EXPECT_EQ("free", mPlatform.Get("TransStatus").reply);
        EXPECT_EQ(0, mPlatform.Get("GetVersion").result);
        EXPECT_EQ(0, mPlatform.Delete("anything"));
        EXPECT_EQ(0, Cmd(4, "SetMode", "night"));
        EXPECT_EQ(0, Connect(4));
        EXPECT_EQ(0, Subscribe(4, "body"));
        EXPECT_EQ(0, Unsubscribe(4, "body"));
        EXPECT_EQ(0, Send("face", "abc"));
        EXPECT_EQ(0, mModule->InitLumoraModule());
        Register({"face", "body"});
        EXPECT_TRUE(mGate.IsHolding());
        EXPECT_THAT(mApplication.Commands(), ElementsAre(Command("SetMode", "night")));
    }

    Gate mGate;
    FakeTransports mTransports;
    std::shared_ptr<FakeTransport> mFirst = mTransports.next;
    std::shared_ptr<FakeTransport> mSecond = std::make_shared<FakeTransport>();
};

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
    std::this_thread::sleep_for(milliseconds(30));
    EXPECT_FALSE(isGone);
    mGate.Release();
    EXPECT_EQ(0, goodbye.get());
    end.join();
}

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
