// A client that leaves over real sockets, while the application takes its time for the blocks that it sent.
#include <atomic>
#include <chrono>
#include <functional>
#include <future>

#include "tests/server/server_fixture.h"

namespace lumora_test {
namespace {

using std::chrono::milliseconds;
using testing::SizeIs;

constexpr int BLOCKS = 10;

// The application is inside OnData for the first block until the test releases it, and quick with the others.
class ServerLastBlocksTest : public ServerModuleTest {
protected:
    ServerLastBlocksTest() {
        StartWith({"face", "body"});
        mApplication.onData = [this](int, const Bytes&) {
            if (!mInside.exchange(true)) {
                EXPECT_TRUE(Eventually([this] { return mReleased.load(); }));
            } else {
                mOnLaterBlock();
            }
        };
        OpenChannel();
        Connect(3);
        for (int i = 0; i < BLOCKS; ++i) {
            mToServer.Send(ClientFrame(3, "block"));
        }
        EXPECT_TRUE(Eventually([this] { return mInside.load(); }));
        mLog.Clear();
    }
    ~ServerLastBlocksTest() override {
        mReleased = true;
        mPlatform.Put("StopTransport");
        mApplication.onData = [](int, const Bytes&) {};
    }

    // Begins to leave; returns when the stop waits for the application.
    std::future<int> Leave(const std::function<int()>& request) {
        auto result = std::async(std::launch::async, request);
        EXPECT_TRUE(mLog.WaitFor(1, "joinable will join.\n")) << mLog.Dump();
        return result;
    }
    std::future<int> SayGoodbye() {
        return Leave([this] {
            const int result = Destroy(3);
            mReceivedAtReply = mApplication.Received().size();
            return result;
        });
    }
    void ExpectOthersGoOn() {
        EXPECT_EQ(0, mPlatform.Get("ServiceInfo").result);
        EXPECT_EQ(0, Cmd(4, "SetMode", "night"));
        EXPECT_EQ(0, Connect(4));
        EXPECT_EQ(0, Subscribe(4, "body"));
        EXPECT_EQ(-1, Send("body", "abc"));  // to a channel that ends
        EXPECT_TRUE(mLog.Has(4, "No transport channel created, please connect first.\n"));
        Register({"face", "body"});
        EXPECT_FALSE(mReleased);
        EXPECT_THAT(mApplication.Received(), SizeIs(1));
    }

    std::atomic<bool> mInside{false};
    std::atomic<bool> mReleased{false};
    std::atomic<size_t> mReceivedAtReply{0};
    std::function<void()> mOnLaterBlock = [] {};  // to be set before the first one is released
};

TEST_F(ServerLastBlocksTest, GoodbyeIsAnsweredAfterTheLastBlockAndHoldsUpNoOther) {
    auto goodbye = SayGoodbye();
    ExpectOthersGoOn();
    EXPECT_EQ(std::future_status::timeout, goodbye.wait_for(milliseconds(20)));
    mReleased = true;
    EXPECT_EQ(0, goodbye.get());
    EXPECT_EQ(static_cast<size_t>(BLOCKS), mReceivedAtReply);
}

TEST_F(ServerLastBlocksTest, RemovalHoldsUpNoOther) {
    auto removal = Leave([this] { return mPlatform.SendEvent(2, 7, "127.0.0.1", 5683, "viewer"); });
    ExpectOthersGoOn();
    mReleased = true;
    EXPECT_EQ(0, removal.get());
    EXPECT_THAT(mApplication.Received(), SizeIs(BLOCKS));
}

TEST_F(ServerLastBlocksTest, NextClientGetsItsChannelAfterTheLastBlock) {
    auto goodbye = SayGoodbye();
    std::atomic<size_t> receivedAtSetup{0};
    auto setup = std::async(std::launch::async, [&] {
        const std::string reply = RequestSetup().reply;
        receivedAtSetup = mApplication.Received().size();
        return reply;
    });
    ExpectOthersGoOn();
    EXPECT_EQ(std::future_status::timeout, setup.wait_for(milliseconds(20)));
    mReleased = true;
    EXPECT_EQ(0, goodbye.get());
    EXPECT_EQ("Succ", setup.get()) << mLog.Dump();
    EXPECT_EQ(static_cast<size_t>(BLOCKS), receivedAtSetup);
    EXPECT_EQ(0, Connect(5));
    EXPECT_EQ(0, Send("face", "abc"));
}

TEST_F(ServerLastBlocksTest, EndOfTheDeviceCutsAGoodbyeShort) {
    auto goodbye = SayGoodbye();
    auto end = std::async(std::launch::async, [this] { return mModule->DeInitLumoraModule(); });
    EXPECT_TRUE(mLog.WaitFor(2, "Clear coap resourse success.\n"));
    mReleased = true;
    EXPECT_EQ(0, goodbye.get());
    EXPECT_EQ(0, end.get());
    EXPECT_GT(static_cast<size_t>(BLOCKS), mApplication.Received().size());
}

// A platform that delivers a request on the thread that makes it, in a process that plays both sides.
TEST_F(ServerLastBlocksTest, StopFromInsideOnDataDuringAGoodbyeFails) {
    std::atomic<int> refused{0};
    auto goodbye = SayGoodbye();
    mOnLaterBlock = [&] { refused += mPlatform.Put("StopTransport") == -1 ? 1 : 0; };
    mReleased = true;
    EXPECT_EQ(0, goodbye.get());
    EXPECT_EQ(BLOCKS - 1, refused);
    EXPECT_EQ(static_cast<size_t>(BLOCKS), mReceivedAtReply);
}

}  // namespace
}  // namespace lumora_test
