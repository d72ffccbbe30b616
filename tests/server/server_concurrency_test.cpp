// Sends beside requests: what ThreadSanitizer and a deadline can tell.
#include <atomic>
#include <thread>

#include "tests/server/server_fixture.h"

namespace lumora_test {
namespace {

constexpr int ROUNDS = 30;

// An application thread that sends without a pause.
class Sender {
public:
    explicit Sender(lumoraAiModule::LumoraServerModule& module) : mThread([this, &module] { Run(module); }) {}
    ~Sender() { Stop(); }
    Sender(const Sender&) = delete;
    Sender& operator=(const Sender&) = delete;

    void Stop() {
        mStop = true;
        if (mThread.joinable()) {
            mThread.join();
        }
    }
    // Waits until so many further sends have ended, whatever their result.
    void WaitForSends(int count) {
        const int until = mSends + count;
        EXPECT_TRUE(Eventually([&] { return mSends >= until; }));
    }

private:
    void Run(lumoraAiModule::LumoraServerModule& module) {
        const Bytes payload(100, 'p');
        while (!mStop) {
            unsigned int sent = 0;
            const int ret = module.SendDataToClient("face", payload.data(),
                                                    static_cast<unsigned int>(payload.size()), &sent, 1000);
            EXPECT_TRUE(sent == 0 || (ret == 0 && sent == payload.size()));
            ++mSends;
        }
    }

    std::atomic<bool> mStop{false};
    std::atomic<int> mSends{0};
    std::thread mThread;
};

class ServerConcurrencyTest : public ServerModuleTest {
protected:
    ServerConcurrencyTest() { StartWith({"face", "body"}); }
    ~ServerConcurrencyTest() override {
        mPlatform.Put("StopTransport");
        for (std::thread& reader : mReaders) {
            reader.join();
        }
    }

    // A channel whose frames are read by a thread, and counted if they are whole.
    void OpenReadChannel() {
        OpenChannel();
        mReaders.emplace_back([this, connection = std::move(mFromServer)]() mutable { Read(connection); });
    }

    void Read(RawConnection& connection) {
        try {
            for (;;) {
                const Bytes head = connection.Receive(6);
                const auto headLen = static_cast<unsigned char>(head[0]);
                const auto clientNum = static_cast<unsigned char>(head[5]);
                EXPECT_EQ(LittleEndian32(100), head.substr(1, 4));
                EXPECT_EQ(11 + clientNum, headLen);
                const Bytes rest = connection.Receive(headLen - 6U + 100U);
                EXPECT_EQ(
                    "\x04"
                    "face" +
                        Bytes(100, 'p'),
                    rest.substr(clientNum));
                ++mFrames;
            }
        } catch (const std::runtime_error&) {
            // the channel has ended
        }
    }

    std::vector<std::thread> mReaders;
    std::atomic<int> mFrames{0};
};

TEST_F(ServerConcurrencyTest, SendsBesideSubscriptions) {
    OpenReadChannel();
    Sender sender(*mModule);
    for (int i = 0; i < ROUNDS; ++i) {
        for (int clientID = 1; clientID <= 5; ++clientID) {
            EXPECT_EQ(0, Subscribe(clientID, "face"));
        }
        sender.WaitForSends(1);
        for (int clientID = 1; clientID <= 5; ++clientID) {
            EXPECT_EQ(0, Unsubscribe(clientID, "face"));
        }
    }
    sender.Stop();
    EXPECT_TRUE(Eventually([&] { return mFrames >= ROUNDS; }));
}

TEST_F(ServerConcurrencyTest, SendsBesideSetups) {
    Sender sender(*mModule);
    for (int i = 0; i < ROUNDS; ++i) {
        OpenReadChannel();
        sender.WaitForSends(2);
    }
    EXPECT_TRUE(Eventually([&] { return mFrames > 0; }));
}

TEST_F(ServerConcurrencyTest, SendsBesideStops) {
    Sender sender(*mModule);
    for (int i = 0; i < ROUNDS; ++i) {
        OpenReadChannel();
        sender.WaitForSends(2);
        EXPECT_EQ(0, mPlatform.Put("StopTransport"));
        sender.WaitForSends(1);
    }
}

TEST_F(ServerConcurrencyTest, SendsBesideConnectsAndDestroys) {
    OpenReadChannel();
    Sender sender(*mModule);
    Connect(99);
    for (int i = 0; i < ROUNDS; ++i) {
        EXPECT_EQ(0, Connect(3));
        EXPECT_EQ(0, Subscribe(3, "face"));
        sender.WaitForSends(1);
        EXPECT_EQ(0, Destroy(3));
    }
}

TEST_F(ServerConcurrencyTest, SendsBesideRegistrations) {
    OpenReadChannel();
    Sender sender(*mModule);
    for (int i = 0; i < ROUNDS; ++i) {
        Register({"face", "body" + std::to_string(i)});
        Subscribe(3, "face");
        sender.WaitForSends(1);
    }
}

TEST_F(ServerConcurrencyTest, SendsBesideRemovals) {
    Sender sender(*mModule);
    for (int i = 0; i < ROUNDS; ++i) {
        OpenReadChannel();
        Connect(3);
        Subscribe(3, "face");
        sender.WaitForSends(1);
        EXPECT_EQ(0, mPlatform.SendEvent(2, 7, "127.0.0.1", 5683, "viewer"));
    }
}

TEST_F(ServerConcurrencyTest, SendsBesideStopAndStart) {
    Sender sender(*mModule);
    for (int i = 0; i < ROUNDS; ++i) {
        OpenReadChannel();
        sender.WaitForSends(1);
        EXPECT_EQ(0, mModule->DeInitLumoraModule());
        sender.WaitForSends(1);
        StartWith({"face"});
    }
}

TEST_F(ServerConcurrencyTest, SendsOfSeveralThreadsDoNotMix) {
    OpenReadChannel();
    Subscribe(3, "face");
    Sender first(*mModule);
    Sender second(*mModule);
    first.WaitForSends(ROUNDS);
    second.WaitForSends(ROUNDS);
    EXPECT_TRUE(Eventually([&] { return mFrames >= ROUNDS; }));
}

TEST_F(ServerConcurrencyTest, AnswersBesideSubscriptionsAndSends) {
    OpenReadChannel();
    mApplication.onData = [this](int, const Bytes&) {
        unsigned int sent = 0;
        const Bytes payload(100, 'p');
        mModule->SendDataToClient("face", payload.data(), 100, &sent, 1000);
    };
    Sender sender(*mModule);
    for (int i = 0; i < ROUNDS; ++i) {
        mToServer.Send(ClientFrame(3, "question"));
        EXPECT_EQ(0, Subscribe(3, "face"));
        EXPECT_EQ(0, Unsubscribe(3, "face"));
    }
    EXPECT_EQ(static_cast<size_t>(ROUNDS), mApplication.Received(ROUNDS).size());
    sender.Stop();
    mPlatform.Put("StopTransport");
    mApplication.onData = [](int, const Bytes&) {};
}

TEST_F(ServerConcurrencyTest, RequestsNeverInterleave) {
    std::atomic<int> inside{0};
    std::atomic<int> overlaps{0};
    const auto callback = [&] {
        overlaps += ++inside > 1 ? 1 : 0;
        std::this_thread::yield();
        --inside;
    };
    mApplication.onCommand = callback;
    mApplication.onNotify = callback;
    std::thread other([this] {
        for (int i = 0; i < ROUNDS; ++i) {
            Subscribe(4, "face");
            Unsubscribe(4, "face");
        }
    });
    for (int i = 0; i < ROUNDS; ++i) {
        Cmd(3, "SetMode", "night");
    }
    other.join();
    EXPECT_EQ(0, overlaps);
    EXPECT_EQ(static_cast<size_t>(2 * ROUNDS), mApplication.Notifications().size());
}

// ---- A send never waits for a control request ----

class BlockedRequestTest : public ServerConcurrencyTest {
protected:
    // Sends while a request is held up inside the application.
    void SendDuring(const std::function<void()>& request) {
        OpenChannel();
        std::atomic<bool> inside{false};
        std::atomic<bool> released{false};
        const auto block = [&] {
            inside = true;
            EXPECT_TRUE(Eventually([&] { return released.load(); }));
        };
        mApplication.onCommand = block;
        mApplication.onNotify = block;
        std::thread requester(request);
        EXPECT_TRUE(Eventually([&] { return inside.load(); }));
        EXPECT_EQ(0, Send("body", "abc"));
        EXPECT_EQ(ServerFrameBytes("", "body", "abc"), ReceiveFrame("", "body", "abc"));
        released = true;
        requester.join();
    }
};

TEST_F(BlockedRequestTest, SendDoesNotWaitForACommand) {
    SendDuring([this] { EXPECT_EQ(0, Cmd(3, "SetMode", "night")); });
}

TEST_F(BlockedRequestTest, SendDoesNotWaitForASubscription) {
    SendDuring([this] { EXPECT_EQ(0, Subscribe(3, "face")); });
}

TEST_F(BlockedRequestTest, SendDoesNotWaitForAClientThatGoes) {
    Connect(3);
    Connect(4);
    EXPECT_EQ(0, Subscribe(3, "face"));
    SendDuring([this] { EXPECT_EQ(0, Destroy(3)); });
}

TEST_F(BlockedRequestTest, SubscriberCountsAsSoonAsItsEventIsRaised) {
    OpenChannel();
    mApplication.onNotify = [this] {
        std::thread sender([this] { EXPECT_EQ(0, Send("face", "abc")); });
        sender.join();
    };
    EXPECT_EQ(0, Subscribe(3, "face"));
    EXPECT_EQ(ServerFrameBytes("\x03", "face", "abc"), ReceiveFrame("\x03", "face", "abc"));
}

}  // namespace
}  // namespace lumora_test
