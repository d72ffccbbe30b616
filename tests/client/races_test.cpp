// What may happen at the same time: application calls, events of the platform, frames and hang-ups. These
// are worth most under ThreadSanitizer.
#include <atomic>
#include <stdexcept>
#include <thread>

#include "tests/client/client_fixture.h"
#include "tests/support/eventually.h"

namespace lumoraAiModule {
namespace {

using lumora_test::Eventually;

constexpr int ROUNDS = 15;

class RacesTest : public ChannelTest {
protected:
    RacesTest() {
        mDuring[".sys.mediaservice.setup"] = [this] {
            mToClient = RawConnection::To(6667);
            ++mSetups;
        };
    }

    // Runs again and again on a thread of its own while it lives.
    class Meanwhile {
    public:
        explicit Meanwhile(std::function<void()> action) {
            mThread = std::thread([this, action] {
                do {
                    action();
                    mRan = true;
                    std::this_thread::yield();
                } while (!mEnd);
            });
            Eventually([&] { return mRan.load(); });
        }
        ~Meanwhile() {
            mEnd = true;
            mThread.join();
        }
        Meanwhile(const Meanwhile&) = delete;
        Meanwhile& operator=(const Meanwhile&) = delete;

    private:
        std::atomic<bool> mEnd{false};
        std::atomic<bool> mRan{false};
        std::thread mThread;
    };

    void Remove(int port) { mModule->OnRemoveDevice(7, "127.0.0.1", port, ""); }

    // Whether a client connected; every data channel that was set up on the way is taken up.
    bool TryToBeConnected(const std::string& type) {
        std::string serviceType = type;
        unsigned int handle = 0;
        if (Search() != 0 || mModule->CreateAiDevice(1, serviceType, &handle) != 0) {
            return false;
        }
        const int setupsBefore = mSetups;
        const bool connected = TryToConnect(1, handle) == 0;
        if (mSetups != setupsBefore) {
            mFromClient = mListener.Accept();
        }
        mHandle = handle;
        return connected;
    }

    void ExpectEverythingWorks() {
        Remove(5683);
        Remove(5684);
        ASSERT_TRUE(TryToBeConnected("camera")) << mLog.Dump();
        mModule->RegisterAiDeviceEvent(1, mHandle, FirstCallback);
        EXPECT_EQ(0, SendData(1, mHandle, "all well?")) << mLog.Dump();
        EXPECT_EQ(lumora_test::ClientFrame(1, "all well?"), mFromClient.Receive(15));
        mToClient.Send(lumora_test::ServerFrameBytes("\x01", "face", "all well!"));
        EXPECT_TRUE(Eventually([] { return Bytes("all well!") == LastPayload(); }));
    }
    static Bytes LastPayload() {
        const std::vector<Bytes> payloads = ReceivedPayloads();
        return payloads.empty() ? Bytes() : payloads.back();
    }

    std::atomic<int> mSetups{0};
    unsigned int mHandle = 0;
};

TEST_F(RacesTest, DevicesMayLeaveWhileAClientConnects) {
    EXPECT_EQ(0, mModule->RegisterEvent(1, RemovalCallback));
    {
        const Meanwhile devicesLeave([&] {
            Remove(5683);
            Remove(5684);
        });
        for (int round = 0; round < ROUNDS; ++round) {
            if (TryToBeConnected(round % 2 == 0 ? "camera" : "reader")) {
                SendData(1, mHandle, "data");
                mModule->SendCmd(1, mHandle, "Hello", "");
            }
            mModule->DisconnectAiDevice(1, mHandle);
        }
    }
    ExpectEverythingWorks();
}

TEST_F(RacesTest, DeviceMayHangUpWhileDataIsSent) {
    for (int round = 0; round < ROUNDS; ++round) {
        ASSERT_TRUE(TryToBeConnected("camera")) << mLog.Dump();
        std::thread device([&] { mToClient.Close(); });
        EXPECT_TRUE(Eventually([&] { return SendData(1, mHandle, "data") != 0; }));
        device.join();
        // A send may fail before the receive thread hears of it, which then forgets what was found.
        EXPECT_TRUE(Eventually([&] { return !IsConnected(1, mHandle); }));
    }
    ExpectEverythingWorks();
}

TEST_F(RacesTest, ClientMayDisconnectWhileAnotherSends) {
    NewClients(1);
    ASSERT_TRUE(TryToBeConnected("camera"));
    {
        const Meanwhile otherSends([&] {
            const Bytes payload(1000, 'x');
            SendDataInfo info(payload.data(), 1000, 100);
            unsigned int sent = 0;
            EXPECT_EQ(0, mModule->SendData(2, mHandle, info, sent));
            EXPECT_EQ(1000U, sent);
        });
        const Meanwhile deviceReads([&] { mFromClient.ReceiveSome(std::chrono::milliseconds(1)); });
        for (int round = 0; round < ROUNDS; ++round) {
            EXPECT_EQ(0, mModule->DisconnectAiDevice(1, mHandle));
            EXPECT_EQ(0, TryToConnect(1, mHandle));
        }
    }
    ExpectEverythingWorks();
}

TEST_F(RacesTest, FramesMayArriveWhileTheClientMovesToAnotherDevice) {
    for (int round = 0; round < ROUNDS; ++round) {
        ASSERT_TRUE(TryToBeConnected("camera")) << mLog.Dump();
        mModule->RegisterAiDeviceEvent(1, mHandle, FirstCallback);
        RawConnection old = std::move(mToClient);
        {
            const Meanwhile framesArrive([&] {
                try {
                    old.Send(lumora_test::ServerFrameBytes("\x01", "face", "data"));
                } catch (const std::runtime_error&) {  // the client has moved
                }
            });
            ASSERT_TRUE(TryToBeConnected("reader")) << mLog.Dump();
        }
        Remove(5683);
        Remove(5684);
    }
    ExpectEverythingWorks();
}

TEST_F(RacesTest, FramesMayArriveWhileTheLastClientEndsAndNoneIsDeliveredAfterwards) {
    for (int round = 0; round < ROUNDS; ++round) {
        ASSERT_TRUE(TryToBeConnected("camera")) << mLog.Dump();
        mModule->RegisterAiDeviceEvent(1, mHandle, FirstCallback);
        {
            const Meanwhile framesArrive([&] {
                try {
                    mToClient.Send(lumora_test::ServerFrameBytes("\x01", "face", "data"));
                } catch (const std::runtime_error&) {  // the client has ended
                }
            });
            EXPECT_TRUE(Eventually([] { return !ReceivedPayloads().empty(); }));
            EXPECT_EQ(0, RemoveClient(1));
            const std::size_t delivered = ReceivedPayloads().size();
            mModule.reset();
            EXPECT_EQ(0, LumoraClientModule::DestoryInstance());
            EXPECT_EQ(delivered, ReceivedPayloads().size());
        }
        NewClient();
    }
    ExpectEverythingWorks();
}

TEST_F(RacesTest, DeviceMayHangUpWhileTheLastClientEnds) {
    for (int round = 0; round < ROUNDS; ++round) {
        ASSERT_TRUE(TryToBeConnected("camera")) << mLog.Dump();
        std::thread device([&] { mToClient.Close(); });
        EXPECT_EQ(0, RemoveClient(1));
        mModule.reset();
        EXPECT_EQ(0, LumoraClientModule::DestoryInstance());
        device.join();
        NewClient();
    }
    ExpectEverythingWorks();
}

TEST_F(RacesTest, EventsMayArriveWhileTheInstanceEndsAndANewOneBegins) {
    ASSERT_TRUE(TryToBeConnected("camera"));
    {
        const Meanwhile eventsArrive([&] {
            mPlatform.SendEvent(2, 7, "127.0.0.1", 5683, "camera");
            mPlatform.SendEvent(1, 7, "127.0.0.1", 5683, "camera");
        });
        for (int round = 0; round < ROUNDS; ++round) {
            EXPECT_EQ(0, RemoveClient(1));
            mModule.reset();
            EXPECT_EQ(0, LumoraClientModule::DestoryInstance());
            NewClient();
            TryToBeConnected("camera");
        }
    }
    ExpectEverythingWorks();
}

TEST_F(RacesTest, VersionMayBeAskedForWhileTheInstanceEnds) {
    for (int round = 0; round < ROUNDS; ++round) {
        {
            const std::shared_ptr<LumoraClientModule> holder = mModule;
            const Meanwhile versionIsAskedFor([&] {
                std::string version;
                holder->GetClientVersion(1, version);
            });
            EXPECT_EQ(0, RemoveClient(1));
            mModule.reset();
            EXPECT_EQ(0, LumoraClientModule::DestoryInstance());
        }
        NewClient();
    }
    ExpectEverythingWorks();
}

}  // namespace
}  // namespace lumoraAiModule
