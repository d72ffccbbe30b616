// What a client has sent before it leaves reaches a device that is only slow, in whichever order the client's
// goodbye and its bytes arrive.
#include <gmock/gmock.h>

#include <chrono>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/fake_security.h"
#include "tests/transport/tcp_fixture.h"

namespace lumora_test {
namespace {

using lumora::ChannelKeys;
using lumoraAiModule::Rest;
using std::chrono::milliseconds;

constexpr milliseconds LIMIT{10000};

enum class Channel { PLAIN, PRIVATE };

std::string NameOf(const testing::TestParamInfo<Channel>& info) {
    return info.param == Channel::PLAIN ? "Plain" : "Private";
}

// A client and a device over real sockets. The device's callback takes its time.
class LastBlocksTest : public testing::TestWithParam<Channel> {
protected:
    LastBlocksTest() {
        ForgetAllFaults();
        OpenClient::Pending() = false;
        OpenServer::Pending() = false;
        mDeviceSide.OnDelivery([this] { std::this_thread::sleep_for(mPause); });
        Open();
    }
    ~LastBlocksTest() override {
        WithinSeconds([this] {
            mDevice->StopTransports();
            mClient->StopTransports();
        });
    }

    void Open() {
        std::string offer;
        std::string answer;
        std::shared_ptr<ChannelKeys> keys;
        if (GetParam() == Channel::PRIVATE) {
            keys = ChannelKeys::Offer(offer);
            mDevice->UseKeys(ChannelKeys::Answer(offer, answer));
            ASSERT_TRUE(keys->Complete(answer, "127.0.0.1", 5683));
            mClient->AwaitKeys();
        }
        ASSERT_EQ(
            0, mClient->CreateTransports(ClientSide::RECEIVE, "127.0.0.1", mPort + 1, mClientSide.mObserver));
        ASSERT_EQ(0,
                  mDevice->CreateTransports(ServerSide::RECEIVE, "127.0.0.1", mPort, mDeviceSide.mObserver));
        ASSERT_EQ(0,
                  mDevice->CreateTransports(ServerSide::SEND, "127.0.0.1", mPort + 1, mDeviceSide.mObserver));
        mClient->UseKeys(keys);
        ASSERT_EQ(0, mClient->CreateTransports(ClientSide::SEND, "127.0.0.1", mPort, mClientSide.mObserver));
        ASSERT_EQ(0, mClient->WaitForPeer());
    }

    // Every call has succeeded.
    void Send(unsigned int count, unsigned int size) {
        const Bytes frame = ServerSide::Frame(Bytes(size, 'b'));
        for (unsigned int i = 0; i < count; ++i) {
            unsigned int written = 0;
            ASSERT_EQ(0,
                      mClient->SendData(frame.data(), static_cast<unsigned int>(frame.size()), &written, 0))
                << mLog.Dump();
            ASSERT_EQ(frame.size(), written);
        }
    }
    void StopDevice(Rest rest, milliseconds limit = LIMIT) {
        WithinSeconds([&] { EXPECT_EQ(0, mDevice->StopAfterReceiving(rest, limit)); });
    }
    size_t Delivered() const { return mDeviceSide.Delivered().Count(); }

    CapturedLog mLog;
    FakeSecurity mSecurity;
    ClientSide mClientSide;
    ServerSide mDeviceSide;
    std::shared_ptr<OpenClient> mClient = mClientSide.Make();
    std::shared_ptr<OpenServer> mDevice = mDeviceSide.Make();
    const int mPort = FreePort();
    milliseconds mPause{20};
};

INSTANTIATE_TEST_SUITE_P(Channels, LastBlocksTest, testing::Values(Channel::PLAIN, Channel::PRIVATE), NameOf);

TEST_P(LastBlocksTest, GoodbyeThatOvertakesTheBytesLosesNone) {
    Send(50, 1);
    StopDevice(Rest::ALL);
    EXPECT_EQ(50U, Delivered()) << mLog.Dump();
}

TEST_P(LastBlocksTest, GoodbyeThatOvertakesLargeBlocksLosesNone) {
    Send(50, 1048576);
    StopDevice(Rest::ALL);
    EXPECT_EQ(50U, Delivered()) << mLog.Dump();
}

TEST_P(LastBlocksTest, ClientThatClosesBeforeTheGoodbyeLosesNone) {
    mPause = milliseconds(40);
    Send(20, 1048576);
    mClient->StopTransports();
    StopDevice(Rest::ALL);
    EXPECT_EQ(20U, Delivered()) << mLog.Dump();
}

// The device's next send meets the close of the other connection.
TEST_P(LastBlocksTest, DeviceThatSendsToAClientThatHasLeftStillReadsWhatItSent) {
    mPause = milliseconds(100);
    Send(20, 1000);
    mClient->StopTransports();
    const Bytes frame = ClientSide::Frame("answer");
    EXPECT_TRUE(Eventually([&] {
        unsigned int written = 0;
        return mDevice->SendData(frame.data(), static_cast<unsigned int>(frame.size()), &written, 0) != 0 ||
               written == 0;
    }));
    EXPECT_TRUE(mDeviceSide.Delivered().WaitForCount(20)) << Delivered();
}

TEST_P(LastBlocksTest, WaitingUntilTheDeviceHasTakenAllLeavesNothingUnderWay) {
    Send(30, 1048576);
    mClient->WaitUntilTaken(LIMIT);
    StopDevice(Rest::ARRIVED);
    EXPECT_EQ(30U, Delivered()) << mLog.Dump();
}

TEST_P(LastBlocksTest, TakeOverHandsOverWhatHasArrivedFromAClientThatGoesOn) {
    Send(40, 10);
    mClient->WaitUntilTaken(LIMIT);  // before, some may wait for an answer of the device's host
    std::atomic<bool> ends{false};
    std::thread stream([&] {
        const Bytes frame = ServerSide::Frame("more");
        unsigned int written = 0;
        while (!ends &&
               mClient->SendData(frame.data(), static_cast<unsigned int>(frame.size()), &written, 0) == 0) {
            std::this_thread::sleep_for(milliseconds(1));
        }
    });
    StopDevice(Rest::ARRIVED);
    EXPECT_LE(40U, Delivered());
    ends = true;
    stream.join();
}

TEST_P(LastBlocksTest, LimitEndsTheHandingOverAndTheLogSaysSo) {
    mPause = milliseconds(100);
    Send(100, 1000);
    const auto begin = std::chrono::steady_clock::now();
    StopDevice(Rest::ALL, milliseconds(300));
    EXPECT_LT(std::chrono::steady_clock::now() - begin, milliseconds(100 * 100 / 2));
    EXPECT_GT(100U, Delivered());
    EXPECT_THAT(mLog.Texts(3), testing::Contains(testing::HasSubstr("bytes that had arrived.")));
}

TEST_P(LastBlocksTest, OwnStopOfTheDeviceWaitsForTheBlocksOfOneReadOnly) {
    mPause = milliseconds(100);
    Send(20, 1000000);
    WithinSeconds([this] { mDevice->StopTransports(); });
    EXPECT_GT(20U, Delivered());
}

TEST_P(LastBlocksTest, DroppingTheRestEndsAStopInProgress) {
    mPause = milliseconds(100);
    Send(100, 1000);
    EXPECT_TRUE(mDeviceSide.Delivered().WaitForCount(1));
    std::thread stop([this] { StopDevice(Rest::ALL); });
    EXPECT_TRUE(mLog.WaitFor(1, "joinable will join.\n"));
    const size_t before = Delivered();
    mDevice->DropRest();
    stop.join();
    EXPECT_GE(before + 2, Delivered());
}

TEST_P(LastBlocksTest, StopOfAnIdleChannelDoesNotWait) {
    mPause = milliseconds(0);
    Send(1, 1);
    EXPECT_TRUE(mDeviceSide.Delivered().WaitForCount(1));
    const auto begin = std::chrono::steady_clock::now();
    StopDevice(Rest::ALL);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, milliseconds(400));
}

}  // namespace
}  // namespace lumora_test
