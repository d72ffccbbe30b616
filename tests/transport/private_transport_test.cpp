// Transports of a private channel, over keys of a platform library in the process: two transports with each
// other, or one of them with a peer that the test plays.
#include <poll.h>
#include <sys/socket.h>

#include <chrono>
#include <cstring>
#include <thread>

#include "link/channel_security.h"
#include "tests/support/fake_security.h"
#include "tests/transport/tcp_fixture.h"
#include "transport/peer_candidates.h"

namespace lumora_test {
namespace {

using Clock = std::chrono::steady_clock;
using lumora::ChannelKeys;
using lumora::ProtectedConnection;
using lumoraAiModule::FrameParts;
using lumoraAiModule::PeerCandidates;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr char NOT_PROVEN[] = "A connection to the data port has not proven the key and is closed.\n";

// The keys of both ends of one channel.
struct KeyPair {
    std::shared_ptr<ChannelKeys> client;
    std::shared_ptr<ChannelKeys> device;
};

KeyPair MakeKeys() {
    std::string offer;
    std::string answer;
    KeyPair keys;
    keys.client = ChannelKeys::Offer(offer);
    keys.device = ChannelKeys::Answer(offer, answer);
    EXPECT_TRUE(keys.client->Complete(answer, "127.0.0.1", 5683));
    return keys;
}

// A protected connection that the test holds an end of.
class PrivatePeer {
public:
    PrivatePeer(RawConnection raw, const ChannelKeys& keys, ChannelKeys::Direction direction, bool accepts)
        : mRaw(std::move(raw)), mProtected(keys.Open(direction, accepts, mRaw.Fd())) {}

    int GoOn() { return mProtected->Handshake(); }
    bool ShakesHands() {
        return Eventually([this] { return mProtected->Handshake() == 1; });
    }
    void Send(const Bytes& bytes) {
        std::size_t sent = 0;
        while (sent < bytes.size()) {
            const int count =
                mProtected->Write(bytes.data() + sent, static_cast<unsigned int>(bytes.size() - sent));
            sent += count > 0 ? static_cast<std::size_t>(count) : 0;
        }
    }
    Bytes Receive(std::size_t count) {
        Bytes received(count, '\0');
        std::size_t have = 0;
        EXPECT_TRUE(Eventually([&] {
            const int result = mProtected->Read(&received[have], static_cast<unsigned int>(count - have));
            have += result > 0 ? static_cast<std::size_t>(result) : 0;
            return have == count;
        }));
        return received;
    }
    bool SeesOrderlyEnd() {
        char byte = 0;
        return Eventually([&] { return mProtected->Read(&byte, 1) == 0; });
    }
    void SayEnd() { mProtected->Shutdown(); }
    RawConnection& Raw() { return mRaw; }

private:
    RawConnection mRaw;
    std::unique_ptr<ProtectedConnection> mProtected;
};

class PrivateTransportTest : public testing::Test {
protected:
    PrivateTransportTest() : mDescriptorsBefore(OpenDescriptors()) {
        ForgetAllFaults();
        OpenClient::Pending() = false;
        OpenServer::Pending() = false;
    }
    ~PrivateTransportTest() override {
        WithinSeconds([this] {
            mDevice->StopTransports();
            mClient->StopTransports();
        });
        mDevice.reset();
        mClient.reset();
        EXPECT_TRUE(Eventually([this] { return OpenDescriptors() == mDescriptorsBefore; }));
        mKeys = {};
        EXPECT_EQ(0, mSecurity.liveConnections);
    }

    int ClientReceives() {
        mClient->AwaitKeys();
        return mClient->CreateTransports(ClientSide::RECEIVE, "127.0.0.1", mPort + 1, mClientSide.mObserver);
    }
    int DeviceReceives() {
        mDevice->UseKeys(mKeys.device);
        return mDevice->CreateTransports(ServerSide::RECEIVE, "127.0.0.1", mPort, mDeviceSide.mObserver);
    }
    int DeviceSends() {
        return mDevice->CreateTransports(ServerSide::SEND, "127.0.0.1", mPort + 1, mDeviceSide.mObserver);
    }
    int ClientSends() {
        mClient->UseKeys(mKeys.client);
        return mClient->CreateTransports(ClientSide::SEND, "127.0.0.1", mPort, mClientSide.mObserver);
    }
    // In the order of a connect.
    void Open() {
        ASSERT_EQ(0, ClientReceives());
        BetweenOurHalfAndTheDevices();
        ASSERT_EQ(0, DeviceReceives());
        ASSERT_EQ(0, DeviceSends()) << mLog.Dump();
        BetweenTheDevicesHalfAndOurs();
        ASSERT_EQ(0, ClientSends()) << mLog.Dump();
        ASSERT_EQ(0, mClient->WaitForPeer()) << mLog.Dump();
    }
    std::function<void()> BetweenOurHalfAndTheDevices = [] {};
    std::function<void()> BetweenTheDevicesHalfAndOurs = [] {};

    // The device's two ends, or the client's, are the test's.
    PrivatePeer ToClient() {
        PrivatePeer peer(RawConnection::To(mPort + 1), *mKeys.device, ChannelKeys::Direction::TO_CLIENT,
                         false);
        EXPECT_TRUE(peer.ShakesHands());
        return peer;
    }
    PrivatePeer ToDevice() {
        PrivatePeer peer(RawConnection::To(mPort), *mKeys.client, ChannelKeys::Direction::TO_DEVICE, false);
        EXPECT_TRUE(peer.ShakesHands());
        return peer;
    }
    PrivatePeer FromDevice(RawListener& listener) {
        PrivatePeer peer(listener.Accept(), *mKeys.client, ChannelKeys::Direction::TO_CLIENT, true);
        EXPECT_TRUE(peer.ShakesHands());
        return peer;
    }

    // Each waits for its blocks on the other side.
    void ExpectFromClient(const Bytes& payload) {
        EXPECT_EQ(0, SendFrom(*mClient, ServerSide::Frame(payload).substr(0, 6), payload));
        EXPECT_TRUE(mDeviceSide.Delivered().WaitForCount(1));
        EXPECT_THAT(mDeviceSide.mRecorder.mBlocks.Take(), ElementsAre(ServerSide::Item(payload)));
    }
    void ExpectFromDevice(const Bytes& payload) {
        const Bytes frame = ClientSide::Frame(payload);
        const std::size_t head = frame.size() - payload.size();
        EXPECT_EQ(0, SendFrom(*mDevice, frame.substr(0, head), payload));
        EXPECT_TRUE(mClientSide.Delivered().WaitForCount(1));
        EXPECT_THAT(mClientSide.mCallback.mFrames.Take(), ElementsAre(frame));
    }
    template <typename Transport>
    int SendFrom(Transport& transport, const Bytes& head, const Bytes& payload) {
        FrameParts parts;
        parts.head = head.data();
        parts.headLength = static_cast<unsigned int>(head.size());
        parts.payload = payload.data();
        parts.payloadLength = static_cast<unsigned int>(payload.size());
        mWritten = 4711;
        return transport.SendFrame(parts, &mWritten, 0);
    }

    const std::set<int> mDescriptorsBefore;
    CapturedLog mLog;
    FakeSecurity mSecurity;
    KeyPair mKeys = MakeKeys();
    ClientSide mClientSide;
    ServerSide mDeviceSide;
    std::shared_ptr<OpenClient> mClient = mClientSide.Make();
    std::shared_ptr<OpenServer> mDevice = mDeviceSide.Make();
    const int mPort = FreePort();
    unsigned int mWritten = 4711;
};

TEST_F(PrivateTransportTest, BlocksOfEverySizePassBothWays) {
    ASSERT_NO_FATAL_FAILURE(Open());
    for (const unsigned int size : {1U, 2U, 4090U, 16384U, 65535U, 65536U, 1024000U}) {
        ExpectFromClient(Bytes(size, 'c'));
        ExpectFromDevice(Bytes(size, 'd'));
    }
    ExpectFromClient(Bytes(5242880, 'm'));
    EXPECT_THAT(mLog.Texts(4), IsEmpty());
}

// The device's sending half with the test at its end.
class PrivateDeviceTest : public PrivateTransportTest {
protected:
    PrivateDeviceTest() {
        EXPECT_EQ(0, DeviceReceives());
        EXPECT_EQ(0, DeviceSends());
    }
    int Send(const Bytes& bytes) {
        mWritten = 4711;
        return mDevice->SendData(bytes.data(), static_cast<unsigned int>(bytes.size()), &mWritten, 0);
    }
    bool IsReady() {
        return Eventually([this] { return Send("x") == 0; });
    }
    RawListener mListener{mPort + 1};
};

// The client's receiving half with the test at its end.
class PrivateClientTest : public PrivateTransportTest {
protected:
    PrivateClientTest() { EXPECT_EQ(0, ClientReceives()); }
    void Decide() { mClient->UseKeys(mKeys.client); }
    void SendBlock(PrivatePeer& peer, const Bytes& payload) { peer.Send(ClientSide::Frame(payload)); }
    void ExpectBlock(const Bytes& payload) {
        EXPECT_TRUE(mClientSide.Delivered().WaitForCount(1)) << mLog.Dump();
        EXPECT_THAT(mClientSide.mCallback.mFrames.Take(), ElementsAre(ClientSide::Frame(payload)));
    }
};

TEST_F(PrivateDeviceTest, BytesOnTheWireAreThoseOfTheProtection) {
    PrivatePeer peer = FromDevice(mListener);
    ASSERT_TRUE(IsReady());
    EXPECT_EQ("x", peer.Receive(1));
    EXPECT_EQ(0, Send("plain text"));
    EXPECT_EQ(Scrambled("plain text"), peer.Raw().Receive(14));
}

TEST_F(PrivateDeviceTest, SendBeforeTheHandshakeIsDoneFailsAsOneWithoutAConnection) {
    EXPECT_EQ(-1, Send("too early"));
    EXPECT_EQ(4711U, mWritten);
    EXPECT_THAT(mLog.Texts(4), ElementsAre(NO_CHANNEL));
    PrivatePeer peer = FromDevice(mListener);
    EXPECT_TRUE(IsReady());
}

TEST_F(PrivateDeviceTest, SendsAsSoonAsThePeerKnowsThatTheHandshakeIsDone) {
    PrivatePeer peer(mListener.Accept(), *mKeys.client, ChannelKeys::Direction::TO_CLIENT, true);
    ASSERT_TRUE(peer.ShakesHands());
    ASSERT_TRUE(IsReady());
    EXPECT_EQ(0, Send("first block"));
    EXPECT_EQ(11U, mWritten);
}

TEST_F(PrivateDeviceTest, WrongGreetingEndsTheChannel) {
    RawConnection stranger = mListener.Accept();
    stranger.Send("Hxxxxxxx");
    EXPECT_TRUE(Eventually([this] { return !mDevice->IsRunning(); }));
    EXPECT_TRUE(mLog.WaitFor(4, "the handshake of the private channel failed: Protocol error(errno: 71)\n"));
    EXPECT_EQ(-1, Send("x"));
    EXPECT_TRUE(mDevice->IsBroken());
}

TEST_F(PrivateDeviceTest, OrderlyEndOfTheClientLetsSendsWriteNothing) {
    PrivatePeer peer = FromDevice(mListener);
    {
        PrivatePeer toDevice = ToDevice();
        ASSERT_TRUE(IsReady());
        toDevice.SayEnd();
        toDevice.Raw().Close();
    }
    ASSERT_TRUE(Eventually([this] { return !mDevice->IsRunning(); }));
    EXPECT_EQ(0, Send("late"));
    EXPECT_EQ(0U, mWritten);
    EXPECT_FALSE(mDevice->IsBroken());
}

TEST_F(PrivateDeviceTest, CutOffEndOfTheClientBreaksTheChannel) {
    PrivatePeer peer = FromDevice(mListener);
    PrivatePeer toDevice = ToDevice();
    ASSERT_TRUE(IsReady());
    toDevice.Raw().ShutdownSending();
    ASSERT_TRUE(Eventually([this] { return !mDevice->IsRunning(); }));
    EXPECT_TRUE(mDevice->IsBroken());
    EXPECT_EQ(-1, Send("late"));
}

TEST_F(PrivateDeviceTest, ResetOfTheClientBreaksTheChannel) {
    PrivatePeer peer = FromDevice(mListener);
    PrivatePeer toDevice = ToDevice();
    ASSERT_TRUE(IsReady());
    toDevice.Raw().Reset();
    ASSERT_TRUE(Eventually([this] { return !mDevice->IsRunning(); }));
    EXPECT_TRUE(mDevice->IsBroken());
}

TEST_F(PrivateDeviceTest, StopTellsThePeerThatNothingFollows) {
    PrivatePeer peer = FromDevice(mListener);
    PrivatePeer toDevice = ToDevice();
    ASSERT_TRUE(IsReady());
    EXPECT_EQ("x", peer.Receive(1));
    WithinSeconds([this] { mDevice->StopTransports(); });
    EXPECT_TRUE(peer.SeesOrderlyEnd());
    EXPECT_TRUE(peer.Raw().SeesEnd());
}

TEST_F(PrivateDeviceTest, StopEndsAHandshakeThatThePeerNeverAnswers) {
    const auto begin = Clock::now();
    WithinSeconds([this] { mDevice->StopTransports(); });
    EXPECT_LT(Clock::now() - begin, std::chrono::milliseconds(500));
}

TEST_F(PrivateDeviceTest, PeerThatStopsReadingCostsHalfASecond) {
    PrivatePeer peer = FromDevice(mListener);
    PrivatePeer toDevice = ToDevice();
    ASSERT_TRUE(IsReady());
    const auto begin = Clock::now();
    EXPECT_EQ(0, Send(Bytes(20000000, 'x')));
    EXPECT_LT(mWritten, 20000000U);
    EXPECT_GE(Clock::now() - begin, std::chrono::milliseconds(400));
    EXPECT_LT(Clock::now() - begin, std::chrono::seconds(5));
    EXPECT_TRUE(mDevice->IsBroken());
    EXPECT_THAT(mLog.Texts(4), Contains(HasSubstr("SendData timeout")));
}

TEST_F(PrivateDeviceTest, SlowPeerGetsTheWholeBlock) {
    PrivatePeer peer = FromDevice(mListener);
    PrivatePeer toDevice = ToDevice();
    ASSERT_TRUE(IsReady());
    std::thread reading([&] {
        EXPECT_EQ("x", peer.Receive(1));
        EXPECT_EQ(Bytes(8000000, 'y'), peer.Receive(8000000));
    });
    EXPECT_EQ(0, Send(Bytes(8000000, 'y')));
    reading.join();
    EXPECT_EQ(8000000U, mWritten);
}

TEST_F(PrivateDeviceTest, WriteThatHasToReadFirstIsRepeated) {
    PrivatePeer peer = FromDevice(mListener);
    ASSERT_TRUE(IsReady());
    mSecurity.writesThatWantToRead = 3;
    EXPECT_EQ(0, Send("block"));
    EXPECT_EQ(5U, mWritten);
    EXPECT_EQ("xblock", peer.Receive(6));
}

TEST_F(PrivateDeviceTest, SmallFramesAreNeverHeldBack) {
    PrivatePeer peer = FromDevice(mListener);
    PrivatePeer toDevice = ToDevice();
    ASSERT_TRUE(IsReady());
    const int before = SystemCallCount(SystemCall::SETSOCKOPT);
    for (int i = 0; i < 200; ++i) {
        EXPECT_EQ(0, Send("y"));
    }
    EXPECT_EQ(Bytes("x") + Bytes(200, 'y'), peer.Receive(201));
    EXPECT_EQ(before, SystemCallCount(SystemCall::SETSOCKOPT)) << "nothing had to be pushed";
}

TEST_F(PrivateClientTest, ConnectionWaitsUntilTheKeysAreKnown) {
    PrivatePeer peer(RawConnection::To(mPort + 1), *mKeys.device, ChannelKeys::Direction::TO_CLIENT, false);
    EXPECT_NE(1, peer.GoOn());
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_NE(1, peer.GoOn());
    Decide();
    ASSERT_TRUE(peer.ShakesHands());
    EXPECT_EQ(0, mClient->WaitForPeer());
    SendBlock(peer, "block");
    ExpectBlock("block");
}

TEST_F(PrivateClientTest, BytesBehindTheHandshakeAreNotOverlooked) {
    PrivatePeer peer(RawConnection::To(mPort + 1), *mKeys.device, ChannelKeys::Direction::TO_CLIENT, false);
    EXPECT_NE(1, peer.GoOn());
    peer.Raw().Send(Scrambled(ClientSide::Frame("early")));
    Decide();
    ExpectBlock("early");
}

TEST_F(PrivateClientTest, ChannelThatTurnsOutPlainTakesTheConnectionThatWaits) {
    RawConnection peer = RawConnection::To(mPort + 1);
    peer.Send(ClientSide::Frame("plain"));
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    mClient->UseKeys(nullptr);
    ExpectBlock("plain");
    EXPECT_EQ(0, mSecurity.liveConnections);
}

TEST_F(PrivateClientTest, ReadThatHasToWriteFirstIsRepeated) {
    Decide();
    PrivatePeer peer = ToClient();
    ASSERT_EQ(0, mClient->WaitForPeer());
    mSecurity.readsThatWantToWrite = 3;
    SendBlock(peer, "block");
    ExpectBlock("block");
}

TEST_F(PrivateClientTest, PieceThatComesByteByByteIsPutTogether) {
    Decide();
    PrivatePeer peer = ToClient();
    ASSERT_EQ(0, mClient->WaitForPeer());
    peer.Raw().SendInPieces(Scrambled(ClientSide::Frame(Bytes(700, 'b'))), 1);
    ExpectBlock(Bytes(700, 'b'));
    EXPECT_THAT(mLog.Texts(4), IsEmpty()) << "parts do not count against the budget";
}

TEST_F(PrivateClientTest, CutOffEndIsReported) {
    Decide();
    PrivatePeer peer = ToClient();
    ASSERT_EQ(0, mClient->WaitForPeer());
    peer.Raw().Close();
    EXPECT_TRUE(mClientSide.mCallback.mDisconnects.WaitForCount(1));
    EXPECT_TRUE(mClient->IsBroken());
}

TEST_F(PrivateClientTest, ResetIsReported) {
    Decide();
    PrivatePeer peer = ToClient();
    ASSERT_EQ(0, mClient->WaitForPeer());
    peer.Raw().Reset();
    EXPECT_TRUE(mClientSide.mCallback.mDisconnects.WaitForCount(1));
}

TEST_F(PrivateClientTest, OrderlyEndIsReported) {
    Decide();
    PrivatePeer peer = ToClient();
    ASSERT_EQ(0, mClient->WaitForPeer());
    peer.SayEnd();
    EXPECT_TRUE(mClientSide.mCallback.mDisconnects.WaitForCount(1));
}

TEST_F(PrivateClientTest, ChangedBytesEndTheConnection) {
    Decide();
    PrivatePeer peer = ToClient();
    ASSERT_EQ(0, mClient->WaitForPeer());
    mSecurity.readsFail = true;
    peer.Raw().Send("changed");
    EXPECT_TRUE(mClientSide.mCallback.mDisconnects.WaitForCount(1));
}

TEST_F(PrivateClientTest, OwnStopIsNotReported) {
    Decide();
    PrivatePeer peer = ToClient();
    ASSERT_EQ(0, mClient->WaitForPeer());
    WithinSeconds([this] { mClient->StopTransports(); });
    EXPECT_EQ(0U, mClientSide.mCallback.mDisconnects.Count());
    EXPECT_TRUE(peer.SeesOrderlyEnd());
}

TEST_F(PrivateClientTest, PeerThatNeverProvesItsKeyIsGivenUpAfterTwoSeconds) {
    Decide();
    const RawConnection silent = RawConnection::To(mPort + 1);
    const auto begin = Clock::now();
    EXPECT_EQ(-1, mClient->WaitForPeer());
    EXPECT_GE(Clock::now() - begin, std::chrono::milliseconds(1900));
    EXPECT_TRUE(mLog.Has(4, "The peer has not connected by a private connection in time.\n"));
    EXPECT_TRUE(mLog.WaitFor(3, NOT_PROVEN));
}

TEST_F(PrivateClientTest, WaitForThePeerEndsWithTheReceiveThread) {
    std::thread stopping([this] {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        mClient->StopTransports();
    });
    const auto begin = Clock::now();
    EXPECT_EQ(-1, mClient->WaitForPeer());
    EXPECT_LT(Clock::now() - begin, std::chrono::seconds(1));
    stopping.join();
}

TEST_F(PrivateClientTest, SendingHalfFailsIfTheDeviceDoesNotAnswerTheHandshake) {
    RawListener silent(mPort);
    const auto begin = Clock::now();
    EXPECT_EQ(-1, ClientSends());
    EXPECT_GE(Clock::now() - begin, std::chrono::milliseconds(1900));
    EXPECT_LT(Clock::now() - begin, std::chrono::seconds(6));
    EXPECT_TRUE(
        mLog.Has(4, "the handshake of the private channel failed: Connection timed out(errno: 110)\n"));
    EXPECT_TRUE(mLog.Has(4, "SetupSocket error: 110\n"));
    EXPECT_FALSE(mClient->HasSendSocket());
}

TEST_F(PrivateClientTest, SendingHalfFailsWithoutMemoryForTheConnection) {
    RawListener silent(mPort);
    mSecurity.opensConnections = false;
    EXPECT_EQ(-1, ClientSends());
    EXPECT_TRUE(mLog.Has(4, "SetupSocket error: 12\n"));
}

// ---- Strangers ----

TEST_F(PrivateClientTest, PeerWithAnotherKeyIsClosedAndTheRightOneTaken) {
    Decide();
    const KeyPair other = MakeKeys();
    PrivatePeer stranger(RawConnection::To(mPort + 1), *other.device, ChannelKeys::Direction::TO_CLIENT,
                         false);
    stranger.GoOn();
    EXPECT_TRUE(stranger.Raw().SeesEnd());
    EXPECT_TRUE(mLog.WaitFor(3, NOT_PROVEN));
    PrivatePeer peer = ToClient();
    EXPECT_EQ(0, mClient->WaitForPeer());
}

TEST_F(PrivateClientTest, KeyOfTheOtherDirectionIsNoProof) {
    Decide();
    PrivatePeer stranger(RawConnection::To(mPort + 1), *mKeys.device, ChannelKeys::Direction::TO_DEVICE,
                         false);
    stranger.GoOn();
    EXPECT_TRUE(stranger.Raw().SeesEnd());
}

// Strangers that connect before the keys are known, and after.
enum class When { BEFORE, AFTER };
class StrangersTest : public PrivateClientTest, public testing::WithParamInterface<When> {
protected:
    void Connect(int count, const Bytes& bytes) {
        if (GetParam() == When::AFTER) {
            Decide();
        }
        for (int i = 0; i < count; ++i) {
            mStrangers.push_back(RawConnection::To(mPort + 1));
            if (!bytes.empty()) {
                mStrangers.back().Send(bytes);
            }
        }
    }
    // The peer is behind them all.
    void ExpectPeerIsTaken() {
        const auto begin = Clock::now();
        PrivatePeer peer(RawConnection::To(mPort + 1), *mKeys.device, ChannelKeys::Direction::TO_CLIENT,
                         false);
        peer.GoOn();
        Decide();
        ASSERT_TRUE(peer.ShakesHands()) << mLog.Dump();
        EXPECT_EQ(0, mClient->WaitForPeer());
        EXPECT_LT(Clock::now() - begin, PeerCandidates::LIMIT);
        SendBlock(peer, "block");
        ExpectBlock("block");
        for (RawConnection& stranger : mStrangers) {
            EXPECT_TRUE(stranger.SeesEnd());
        }
    }
    std::vector<RawConnection> mStrangers;
};

TEST_P(StrangersTest, OneThatHoldsItsConnectionOpenTakesNothing) {
    Connect(1, "");
    ExpectPeerIsTaken();
}

TEST_P(StrangersTest, OneThatSendsGarbageTakesNothing) {
    Connect(1, "garbage of any kind");
    ExpectPeerIsTaken();
}

TEST_P(StrangersTest, FullHouseMakesRoomForThePeer) {
    Connect(8, "");
    ExpectPeerIsTaken();
}

TEST_P(StrangersTest, FullHouseOfGarbageMakesRoomForThePeer) {
    Connect(8, "x");
    ExpectPeerIsTaken();
}

INSTANTIATE_TEST_SUITE_P(KeysAreKnown, StrangersTest, testing::Values(When::BEFORE, When::AFTER),
                         [](const auto& about) { return about.param == When::BEFORE ? "Later" : "Before"; });

TEST_F(PrivateTransportTest, TwentyStrangersAtEachPortSpoilNothing) {
    std::vector<RawConnection> strangers;
    BetweenOurHalfAndTheDevices = [&] {
        for (int i = 0; i < 20; ++i) {
            strangers.push_back(RawConnection::To(mPort + 1));
        }
    };
    BetweenTheDevicesHalfAndOurs = [&] {
        for (int i = 0; i < 20; ++i) {
            strangers.push_back(RawConnection::To(mPort));
        }
    };
    ASSERT_NO_FATAL_FAILURE(Open());
    ExpectFromClient("block");
    ExpectFromDevice("block");
}

TEST_F(PrivateTransportTest, NoMoreThanFourConnectionsAreHeld) {
    ASSERT_EQ(0, ClientReceives());
    mClient->UseKeys(mKeys.client);
    std::vector<RawConnection> strangers;
    for (int i = 0; i < 8; ++i) {
        strangers.push_back(RawConnection::To(mPort + 1));
    }
    for (int i = 0; i < 20; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        EXPECT_LE(mSecurity.liveConnections, 4);
    }
}

TEST_F(PrivateTransportTest, KeysAreErasedByTheStop) {
    ASSERT_NO_FATAL_FAILURE(Open());
    mKeys = {};
    EXPECT_EQ(2, mSecurity.liveChannels);
    ExpectFromClient("block");
    WithinSeconds([this] {
        mDevice->StopTransports();
        mClient->StopTransports();
    });
    EXPECT_EQ(0, mSecurity.liveChannels);
    EXPECT_EQ(0, mSecurity.liveConnections);
}

TEST_F(PrivateTransportTest, EndOfTheDeviceEndsTheClientsChannel) {
    ASSERT_NO_FATAL_FAILURE(Open());
    WithinSeconds([this] { mDevice->StopTransports(); });
    EXPECT_TRUE(mClientSide.mCallback.mDisconnects.WaitForCount(1));
}

TEST_F(PrivateTransportTest, WritersAndAStopMayMeet) {
    ASSERT_NO_FATAL_FAILURE(Open());
    std::atomic<bool> goesOn{true};
    std::vector<std::thread> writers;
    for (int i = 0; i < 2; ++i) {
        writers.emplace_back([&] {
            const Bytes frame = ClientSide::Frame(Bytes(3000, 'w'));
            while (goesOn) {
                unsigned int written = 0;
                mDevice->SendData(frame.data(), static_cast<unsigned int>(frame.size()), &written, 0);
            }
        });
    }
    EXPECT_TRUE(mClientSide.Delivered().WaitForCount(100));
    WithinSeconds([this] { mDevice->StopTransports(); });
    goesOn = false;
    for (std::thread& writer : writers) {
        writer.join();
    }
}

}  // namespace
}  // namespace lumora_test
