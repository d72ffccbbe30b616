// ConnectAiDevice where the platform library has keys: what it offers, and what it makes of the answer.
#include <thread>

#include "link/channel_security.h"
#include "tests/client/client_fixture.h"
#include "tests/support/eventually.h"
#include "tests/support/fake_security.h"

namespace lumoraAiModule {
namespace {

using lumora::ChannelKeys;
using lumora_test::Eventually;
using lumora_test::FakeSecurity;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

class PrivateChannelTest : public ChannelTest {
protected:
    // The device takes the offer and plays its part of both handshakes.
    void PlayTheDevice() {
        mDuring[SETUP_KEY] = [this] {
            const std::string asked = Asked().back();
            const std::size_t at = asked.find("\"sec\":") + 6;
            std::string answer;
            mKeys = ChannelKeys::Answer(asked.substr(at, asked.size() - at - 1), answer);
            mReplies[SETUP_KEY] = R"({"r":"Succ","sec":)" + answer + "}";
            mToClient = RawConnection::To(6667);
            mSending = mKeys->Open(ChannelKeys::Direction::TO_CLIENT, false, mToClient.Fd());
            if (mProvesItsKey) {
                EXPECT_NE(1, mSending->Handshake()) << "the client does not know the answer yet";
            }
        };
    }
    int ConnectWithTheDevice(unsigned int handle) {
        std::thread device([this] {
            mFromClient = mListener.Accept();
            mReceiving = mKeys->Open(ChannelKeys::Direction::TO_DEVICE, true, mFromClient.Fd());
            EXPECT_TRUE(Eventually([this] { return mReceiving->Handshake() == 1; }));
            if (mProvesItsKey) {
                EXPECT_TRUE(Eventually([this] { return mSending->Handshake() == 1; }));
            }
        });
        const int result = TryToConnect(1, handle);
        device.join();
        return result;
    }
    void TearDown() override {
        mSending.reset();
        mReceiving.reset();
        mKeys.reset();
        ChannelTest::TearDown();
        EXPECT_EQ(0, mSecurity.liveChannels);
        EXPECT_EQ(0, mSecurity.liveConnections);
    }
    void ExpectFailureThatTheDeviceIsTold(const std::string& text) {
        EXPECT_THAT(mLog.Texts(4), Contains(text));
        EXPECT_EQ("camera Put StopTransport ", Asked().back());
    }

    FakeSecurity mSecurity;
    std::shared_ptr<ChannelKeys> mKeys;
    std::unique_ptr<lumora::ProtectedConnection> mSending;
    std::unique_ptr<lumora::ProtectedConnection> mReceiving;
    bool mProvesItsKey = true;
};

TEST_F(PrivateChannelTest, OfferGoesAlongWithTheSetupAndTheAnswerCompletesTheKeys) {
    const unsigned int camera = Camera();
    PlayTheDevice();
    ASSERT_EQ(0, ConnectWithTheDevice(camera)) << mLog.Dump();
    const std::string offered =
        R"(camera Get .sys.mediaservice.setup {"p":2,"ep":{"addr":"127.0.0.1","port":6666},"sec":{"number":)";
    EXPECT_THAT(Asked(), ElementsAre(testing::StartsWith(offered), "camera Post Connect 1"));
    EXPECT_THAT(mSecurity.completedWith, HasSubstr("} from 127.0.0.1:5683"));
    EXPECT_THAT(mLog.Texts(3), IsEmpty());
    EXPECT_TRUE(mLog.Has(2, "The data channel is private.\n"));
}

TEST_F(PrivateChannelTest, BlocksAreProtectedBothWays) {
    const unsigned int camera = Camera();
    RegisterEvents(1, camera);
    PlayTheDevice();
    ASSERT_EQ(0, ConnectWithTheDevice(camera));
    EXPECT_EQ(0, SendData(1, camera, "to the device"));
    EXPECT_EQ(lumora_test::Scrambled(lumora_test::ClientFrame(1, "to the device")), mFromClient.Receive(23));
    mToClient.Send(lumora_test::Scrambled(lumora_test::ServerFrameBytes("\x01", "face", "from the device")));
    ASSERT_TRUE(Eventually([] { return ReceivedPayloads().size() == 1; }));
    EXPECT_EQ("from the device", ReceivedPayloads()[0]);
}

TEST_F(PrivateChannelTest, PlainModeOffersNothing) {
    mSecurity.mode = LINK_CHANNEL_PLAIN;
    Connect(1, Camera());
    EXPECT_THAT(Asked(), ElementsAre("camera" + SETUP, "camera Post Connect 1"));
}

TEST_F(PrivateChannelTest, PlatformOfAnEarlierVersionOffersNothing) {
    mSecurity.table.size = offsetof(LinkSecurity, GetChannelMode);
    mSecurity.table.GetChannelMode = nullptr;
    Connect(1, Camera());
    EXPECT_THAT(Asked(), ElementsAre("camera" + SETUP, "camera Post Connect 1"));
}

TEST_F(PrivateChannelTest, PreferringClientGoesOnPlainWithADeviceThatPassesOverTheOffer) {
    const unsigned int camera = Camera();
    RegisterEvents(1, camera);
    mReplies[SETUP_KEY] = "Succ";
    Connect(1, camera);
    EXPECT_THAT(mLog.Texts(3), Contains("The device offers no private channel; it gets a plain one.\n"));
    EXPECT_EQ(0, SendData(1, camera, "plain"));
    EXPECT_EQ(lumora_test::ClientFrame(1, "plain"), mFromClient.Receive(11));
    mToClient.Send(lumora_test::ServerFrameBytes("\x01", "face", "back"));
    ASSERT_TRUE(Eventually([] { return ReceivedPayloads().size() == 1; }));
}

TEST_F(PrivateChannelTest, RequiringClientRefusesADeviceThatPassesOverTheOffer) {
    mSecurity.mode = LINK_CHANNEL_REQUIRE;
    for (const char* reply :
         {"Succ", "", "{\"r\":\"Succ\"}", "{\"r\":\"no\",\"sec\":{}}", "{\"sec\":{}}", "[]"}) {
        mReplies[SETUP_KEY] = reply;
        EXPECT_EQ(-1, TryToConnect(1, Camera())) << reply;
        ExpectFailureThatTheDeviceIsTold("A private channel is required, and the device offers none.\n");
    }
}

TEST_F(PrivateChannelTest, AnswerThatIsNotUnderstoodFailsInEveryMode) {
    for (const LinkChannelMode mode : {LINK_CHANNEL_PREFER, LINK_CHANNEL_REQUIRE}) {
        mSecurity.mode = mode;
        mReplies[SETUP_KEY] = R"({"r":"Succ","sec":{"other":1}})";
        EXPECT_EQ(-1, TryToConnect(1, Camera()));
        ExpectFailureThatTheDeviceIsTold(
            "The device's answer to the offer of a private channel is not understood.\n");
    }
}

TEST_F(PrivateChannelTest, ConnectFailsWithoutMemoryForTheOffer) {
    mSecurity.makesChannels = false;
    EXPECT_EQ(-1, TryToConnect(1, Camera()));
    EXPECT_THAT(mLog.Texts(4), Contains("No private channel can be offered.\n"));
    EXPECT_THAT(Asked(), IsEmpty());
}

TEST_F(PrivateChannelTest, ConnectFailsIfTheDeviceProvesOnlyOneDirection) {
    const unsigned int camera = Camera();
    PlayTheDevice();
    mProvesItsKey = false;
    EXPECT_EQ(-1, ConnectWithTheDevice(camera));
    ExpectFailureThatTheDeviceIsTold("The peer has not connected by a private connection in time.\n");
}

TEST_F(PrivateChannelTest, StrangerAtTheClientsPortTakesNothing) {
    const unsigned int camera = Camera();
    PlayTheDevice();
    const auto deviceConnects = mDuring[SETUP_KEY];
    std::vector<RawConnection> strangers;
    mDuring[SETUP_KEY] = [&] {
        strangers.push_back(RawConnection::To(6667));
        strangers.push_back(RawConnection::To(6667));
        strangers.back().Send("garbage that is long enough");
        deviceConnects();
    };
    EXPECT_EQ(0, ConnectWithTheDevice(camera)) << mLog.Dump();
    EXPECT_TRUE(strangers[0].SeesEnd());
    EXPECT_TRUE(strangers[1].SeesEnd());
}

TEST_F(PrivateChannelTest, OfferReachesNoLog) {
    const unsigned int camera = Camera();
    PlayTheDevice();
    ASSERT_EQ(0, ConnectWithTheDevice(camera));
    EXPECT_THAT(mLog.Dump(), Not(HasSubstr("\"sec\"")));
}

}  // namespace
}  // namespace lumoraAiModule
