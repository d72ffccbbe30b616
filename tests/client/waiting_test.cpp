// While an operation waits for a device, everything else goes on: frames are delivered, devices leave,
// channels end.
#include <atomic>
#include <chrono>
#include <thread>
#include <utility>

#include "tests/client/client_fixture.h"
#include "tests/support/eventually.h"

namespace lumoraAiModule {
namespace {

using lumora_test::Eventually;
using testing::ElementsAre;

const Bytes FRAME = lumora_test::ServerFrameBytes("\x01", "face", "meanwhile");

class WaitingTest : public ChannelTest {
protected:
    WaitingTest() : mCamera(Camera()) {
        RegisterEvents(1, mCamera);
        Connect(1, mCamera);
    }

    const unsigned int mCamera;
    bool mDelivered = false;
};

// The device, asked by this key, sends a frame and answers only when it has been delivered.
TEST_F(WaitingTest, FramesAreDeliveredWhileACallWaitsForTheDevice) {
    NewClients(1);
    std::string version;
    const std::pair<const char*, std::function<int()>> calls[] = {
        {"Command", [this] { return mModule->SendCmd(1, mCamera, "Hello", ""); }},
        {"ServiceInfo", [this] { return Search(); }},
        {"Connect", [this] { return TryToConnect(2, mCamera); }},
        {"GetVersion", [&] { return mModule->GetServerVersion(1, mCamera, version); }},
        {"Destroy", [this] { return mModule->DestoryAiDevice(1, mCamera); }},
    };
    for (const auto& [key, call] : calls) {
        bool delivered = false;
        mDuring[key] = [&] {
            const std::size_t before = ReceivedEvents().size();
            mToClient.Send(FRAME);
            delivered = Eventually([=] { return ReceivedEvents().size() > before; });
        };
        EXPECT_EQ(0, call()) << key;
        EXPECT_TRUE(delivered) << key;
        mDuring.erase(key);
    }
}

// The device does not read until its own frame has been delivered, as one that answers out of OnData.
TEST_F(WaitingTest, FramesAreDeliveredWhileASendWaitsForTheDevice) {
    const Bytes block(5242880, 'x');
    std::thread device([&] {
        mFromClient.Receive(1);
        mToClient.Send(FRAME);
        mDelivered = Eventually([] { return !ReceivedEvents().empty(); });
        EXPECT_EQ(block.size() + 5, mFromClient.Receive(block.size() + 5).size());
    });
    EXPECT_EQ(0, SendData(1, mCamera, block));
    device.join();
    EXPECT_TRUE(mDelivered);
    EXPECT_EQ(block.size(), mSent);
}

TEST_F(WaitingTest, LeavingWaitsUntilTheDeviceHasWhatWasSent) {
    const Bytes block(1000000, 'x');
    ASSERT_EQ(0, SendData(1, mCamera, block));
    ASSERT_EQ(block.size(), mSent);
    std::atomic<bool> reads{false};
    std::thread device([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        reads = true;
        mFromClient.Receive(block.size() + 6);
    });
    bool hadBegunToRead = false;
    mDuring["Destroy"] = [&] { hadBegunToRead = reads; };
    EXPECT_EQ(0, mModule->DestoryAiDevice(1, mCamera));
    device.join();
    EXPECT_TRUE(hadBegunToRead);
}

TEST_F(WaitingTest, LeavingDoesNotWaitIfAnotherClientKeepsTheChannel) {
    NewClients(1);
    ASSERT_EQ(0, TryToConnect(2, mCamera));
    const Bytes block(1000000, 'x');
    ASSERT_EQ(0, SendData(1, mCamera, block));
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(0, mModule->DestoryAiDevice(1, mCamera));
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(5));
}

TEST_F(WaitingTest, VersionOfAnotherDeviceIsAskedForWhileACommandWaits) {
    const unsigned int reader = Reader();
    mDuring["Command"] = [&] {
        std::string version;
        int ret = -1;
        std::thread([&] { ret = mModule->GetServerVersion(1, reader, version); }).join();
        EXPECT_EQ(0, ret);
    };
    EXPECT_EQ(0, mModule->SendCmd(1, mCamera, "Hello", ""));
}

TEST_F(WaitingTest, DeviceMayLeaveWhileACommandWaits) {
    EXPECT_EQ(0, mModule->RegisterEvent(1, RemovalCallback));
    mDuring["Command"] = [&] {
        EXPECT_EQ(0, mModule->OnRemoveDevice(7, "127.0.0.1", 5683, "camera"));
        EXPECT_THAT(ClientEvents(), ElementsAre("1:1"));
    };
    EXPECT_EQ(0, mModule->SendCmd(1, mCamera, "Hello", ""));
    EXPECT_EQ(-1, SendData(1, mCamera, "x"));
}

TEST_F(WaitingTest, DeviceThatLeavesWhileItIsSearchedForIsNotKept) {
    bool left = false;
    mDuring["ServiceInfo"] = [&] {
        if (!std::exchange(left, true)) {
            mModule->OnRemoveDevice(7, "127.0.0.1", 5683, "camera");
        }
    };
    EXPECT_EQ(0, Search());
    std::string camera = "camera";
    std::string reader = "reader";
    unsigned int handle = 0;
    EXPECT_EQ(-1, mModule->CreateAiDevice(1, camera, &handle));
    EXPECT_EQ(0, mModule->CreateAiDevice(1, reader, &handle));
}

TEST_F(WaitingTest, ChannelThatEndsDuringASearchIsForgotten) {
    bool closed = false;
    mDuring["ServiceInfo"] = [&] {
        if (!std::exchange(closed, true)) {
            mLog.Clear();
            mToClient.Close();
            EXPECT_TRUE(mLog.WaitFor(0, "OUT\n")) << mLog.Dump();
        }
    };
    EXPECT_EQ(0, Search());
    EXPECT_FALSE(IsConnected(1, mCamera));
}

TEST_F(WaitingTest, ChannelThatEndsWhileItIsOpenedFailsTheConnectAndTheNextOneWorks) {
    const unsigned int reader = Reader();
    mDuring[SETUP_KEY] = [&] {
        mLog.Clear();
        RawConnection::To(6667).Close();
        EXPECT_TRUE(mLog.WaitFor(4, "This Handle no transport.\n"));
    };
    EXPECT_EQ(-1, TryToConnect(1, reader));
    EXPECT_TRUE(mLog.Has(4, "the device closed the channel while it was opened.\n"));
    mFromClient = mListener.Accept();
    EXPECT_TRUE(mFromClient.SeesEnd());
    mDuring[SETUP_KEY] = [&] { mToClient = RawConnection::To(6667); };
    Connect(1, reader);
    EXPECT_EQ(0, SendData(1, reader, "x"));
}

TEST_F(WaitingTest, DeviceThatLeavesWhileItsChannelIsOpenedFailsTheConnect) {
    const unsigned int reader = Reader();
    mDuring[SETUP_KEY] = [&] {
        mToClient = RawConnection::To(6667);
        EXPECT_EQ(0, mModule->OnRemoveDevice(7, "127.0.0.1", 5684, "reader"));
    };
    mLog.Clear();
    EXPECT_EQ(-1, TryToConnect(1, reader));
    EXPECT_TRUE(mLog.Has(4, "Handle error: " + std::to_string(reader) + ", no such device!\n"));
    EXPECT_TRUE(mToClient.SeesEnd());
    EXPECT_FALSE(IsConnected(1, reader));
}

// All recipients of a frame are looked up when its delivery begins.
TEST_F(WaitingTest, ClientThatDisconnectsDuringADeliveryKeepsItsHandleInTheEvent) {
    NewClients(1);
    EXPECT_EQ(0, TryToConnect(2, mCamera));
    EXPECT_EQ(0, mModule->RegisterAiDeviceEvent(2, mCamera, SecondCallback));
    DuringNextEvent([&] { EXPECT_EQ(0, mModule->DisconnectAiDevice(2, mCamera)); });
    mToClient.Send(lumora_test::ServerFrameBytes("\x01\x02", "face", "both"));
    ASSERT_TRUE(Eventually([] { return ReceivedEvents().size() == 2; }));
    EXPECT_EQ(2, ReceivedEvents()[1].event.clientID);
    EXPECT_EQ(mCamera, ReceivedEvents()[1].event.handle);
}

}  // namespace
}  // namespace lumoraAiModule
