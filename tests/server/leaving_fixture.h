// A device whose channel is being stopped or opened for one client while others ask.
#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <string>

#include "tests/server/server_fixture.h"

namespace lumora_test {

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
        mFirst->onStop = mSecond->onStop = [] {};  // the module, which may stop one of them, lives longer
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
        EXPECT_EQ(std::future_status::timeout, result.wait_for(std::chrono::milliseconds(30)));
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
        EXPECT_THAT(mApplication.Commands(), testing::ElementsAre(Command("SetMode", "night")));
    }

    Gate mGate;
    FakeTransports mTransports;
    std::shared_ptr<FakeTransport> mFirst = mTransports.next;
    std::shared_ptr<FakeTransport> mSecond = std::make_shared<FakeTransport>();
};

}  // namespace lumora_test
