// What only the client's transport does.
#include <cerrno>
#include <future>

#include "tests/transport/tcp_fixture.h"

namespace lumora_test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr unsigned int READ_SIZE = lumoraAiModule::READ_SIZE;

class TcpClientTest : public TcpFixture<ClientSide> {
protected:
    const Inbox& Disconnects() const { return mSide.mCallback.mDisconnects; }
    void ExpectNotDisconnected() {
        EXPECT_TRUE(ThreadExits());
        EXPECT_EQ(0U, Disconnects().Count());
        EXPECT_FALSE(mTransport->IsBroken());
        EXPECT_FALSE(mTransport->IsRunning());
    }
};

TEST_F(TcpClientTest, ReceivingIsSetUpInItsOwnWords) {
    ASSERT_EQ(0, CreateReceiving());
    Stop();
    std::vector<std::string> details = mLog.Texts(1);
    ASSERT_LE(3U, details.size());
    EXPECT_EQ("set non-blocking socket Succ, port = : " + std::to_string(mPort) + "\n", details[0]);
    EXPECT_EQ("----bind sucess--will lissten--\n", details[1]);
    EXPECT_EQ(1, mLog.Count(1, "===ClientReceiveThread create succ=========\n"));
}

TEST_F(TcpClientTest, TakenPortFailsAndStopsTheTransport) {
    RawListener taken(0);
    EXPECT_EQ(-1, Create(ClientSide::RECEIVE, "", taken.Port()));
    EXPECT_THAT(mLog.Texts(4), ElementsAre("bind socket error: Address already in use(errno: 98)\n",
                                           "will stop transport\n", "SetupSocket error: 98\n"));
    EXPECT_THAT(mLog.Texts(2),
                ElementsAre("The transport will be stopped.\n", "The transport has been stopped.\n"));
    EXPECT_LT(mLog.IndexOf(4, "will stop transport\n"), mLog.IndexOf(2, "The transport will be stopped.\n"));
    EXPECT_LT(mLog.IndexOf(2, "The transport has been stopped.\n"),
              mLog.IndexOf(4, "SetupSocket error: 98\n"));
    EXPECT_FALSE(mTransport->IsRunning());
}

TEST_F(TcpClientTest, FailedListenStopsTheTransport) {
    FailSystemCall(SystemCall::LISTEN, EOPNOTSUPP);
    EXPECT_EQ(-1, CreateReceiving());
    EXPECT_THAT(mLog.Texts(4), ElementsAre("listen socket error: Operation not supported(errno: 95)\n",
                                           "will stop transport\n", "SetupSocket error: 95\n"));
    EXPECT_TRUE(mLog.Has(1, "----bind sucess--will lissten--\n"));
    EXPECT_THAT(mLog.Texts(2),
                ElementsAre("The transport will be stopped.\n", "The transport has been stopped.\n"));
}

TEST_F(TcpClientTest, FailedBindTakesTheSendingDirectionDown) {
    ConnectSending();
    FailSystemCall(SystemCall::BIND, EACCES);
    EXPECT_EQ(-1, CreateReceiving());
    EXPECT_TRUE(mSinkPeer.SeesEnd());
    EXPECT_EQ(-1, Send("x"));
}

TEST_F(TcpClientTest, AddressOfTheReceivingDirectionIsIgnored) {
    EXPECT_EQ(0, Create(ClientSide::RECEIVE, "no address", mPort));
}

TEST_F(TcpClientTest, ListensOnThePortOfTheDataChannel) {
    ASSERT_EQ(0, Create(ClientSide::RECEIVE, "", 6667));
    mPeer = RawConnection::To(6667);
    mPeer.Send(ClientSide::Frame("payload"));
    EXPECT_TRUE(Delivers({"payload"}));
}

TEST_F(TcpClientTest, WholeFrameIsHandedUpHeadIncluded) {
    Receive();
    const Bytes frame = ServerFrameBytes(Bytes("\x01\x14\x03", 3), "text", "payload");
    mPeer.Send(frame);
    EXPECT_TRUE(mSide.mCallback.mFrames.WaitForCount(1));
    EXPECT_THAT(mSide.mCallback.mFrames.Items(), ElementsAre(frame));
}

TEST_F(TcpClientTest, PeersEndDisconnectsOnceWithTheHandle) {
    Receive();
    mPeer.Close();
    EXPECT_TRUE(ThreadExits());
    EXPECT_THAT(Disconnects().Items(), ElementsAre(std::to_string(HANDLE)));
    EXPECT_TRUE(mTransport->IsBroken());
    EXPECT_FALSE(mTransport->IsRunning());
}

TEST_F(TcpClientTest, FlagsAreSetBeforeTheDisconnectIsReported) {
    mSide.mCallback.mOnDisconnect = [this] {
        EXPECT_TRUE(mTransport->IsBroken());
        EXPECT_FALSE(mTransport->IsRunning());
    };
    Receive();
    mPeer.Close();
    EXPECT_TRUE(ThreadExits());
    EXPECT_EQ(1U, Disconnects().Count());
}

TEST_F(TcpClientTest, BrokenChannelRefusesToSend) {
    Connect();
    mPeer.Close();
    EXPECT_TRUE(ThreadExits());
    EXPECT_EQ(-1, Send("payload"));
    EXPECT_EQ(0U, mWritten);
    EXPECT_THAT(mLog.Texts(4), ElementsAre(NO_CHANNEL));
    EXPECT_TRUE(mTransport->HasSendSocket());
    Stop();
    EXPECT_FALSE(mTransport->IsBroken());
}

TEST_F(TcpClientTest, SendInProgressEndsWhenThePeerLeaves) {
    Connect();
    BeforeSystemCall(SystemCall::SEND, [this] {
        mPeer.Close();
        EXPECT_TRUE(Eventually([this] { return mTransport->IsBroken(); }));
    });
    LimitTransfer(SystemCall::SEND, 3);
    EXPECT_EQ(0, Send("payload"));
    EXPECT_EQ(3U, mWritten);
    EXPECT_TRUE(mLog.Has(1, "write length = 3.\n")) << mLog.Dump();
}

TEST_F(TcpClientTest, SendSaysHowMuchWentOut) {
    Connect();
    EXPECT_EQ(0, Send("payload"));
    EXPECT_TRUE(mLog.Has(1, "write length = 7.\n")) << mLog.Dump();
    FailSystemCall(SystemCall::SEND, EAGAIN, 502);
    EXPECT_EQ(0, Send("payload"));
    EXPECT_TRUE(mLog.Has(1, "write length = 0.\n")) << mLog.Dump();
}

TEST_F(TcpClientTest, SendNeedsNoReceivingDirection) {
    ConnectSending();
    EXPECT_EQ(0, Send("payload"));
    EXPECT_EQ(7U, mWritten);
}

TEST_F(TcpClientTest, SendBeforeItsDirectionExistsFails) {
    EXPECT_EQ(-1, Send("payload"));
    EXPECT_EQ(0U, mWritten);
    EXPECT_THAT(mLog.Texts(4), ElementsAre(NO_CHANNEL));
    Receive();
    mWritten = 4711;
    EXPECT_EQ(-1, Send("payload"));
    EXPECT_EQ(0U, mWritten);
}

TEST_F(TcpClientTest, FailedWriteIsNoDisconnect) {
    Connect();
    FailSystemCall(SystemCall::SEND, EPIPE);
    EXPECT_EQ(-1, Send("payload"));
    EXPECT_THAT(mLog.Texts(4),
                ElementsAre("write failed error: Broken pipe(errno: 32), will stop transport\n"));
    EXPECT_FALSE(mLog.Has(1, "write length = 0.\n"));
    ExpectNotDisconnected();
}

// The device has died: the send fails at once, and the close of the other connection comes a moment later.
TEST_F(TcpClientTest, PeerThatLeavesAfterAFailedWriteDisconnects) {
    Connect();
    FailSystemCall(SystemCall::SEND, EPIPE);
    EXPECT_EQ(-1, Send("payload"));
    mPeer.Close();
    EXPECT_TRUE(ThreadExits());
    EXPECT_EQ(1U, Disconnects().Count());
    EXPECT_TRUE(mTransport->IsBroken());
}

TEST_F(TcpClientTest, PeerThatLeavesWhileAFrameIsDeliveredAndAWriteFailsDisconnects) {
    mSide.OnDelivery([this] {
        FailSystemCall(SystemCall::SEND, EPIPE);
        EXPECT_EQ(-1, Send("payload"));
    });
    Connect();
    mPeer.Send(ClientSide::Frame("payload"));
    EXPECT_TRUE(Eventually([this] { return mSide.Delivered().Count() == 1 && !mTransport->IsRunning(); }));
    mPeer.Close();
    EXPECT_TRUE(ThreadExits());
    EXPECT_EQ(1U, Disconnects().Count());
}

TEST_F(TcpClientTest, ResetAfterAFailedWriteDisconnects) {
    Connect();
    FailSystemCall(SystemCall::SEND, ECONNRESET);
    EXPECT_EQ(-1, Send("payload"));
    mPeer.Reset();
    EXPECT_TRUE(ThreadExits());
    EXPECT_EQ(1U, Disconnects().Count());
}

TEST_F(TcpClientTest, StopAfterAFailedWriteEndsTheThreadAtOnceAndIsNoDisconnect) {
    IgnoreReceiveTimeouts();
    Connect();
    FailSystemCall(SystemCall::SEND, EPIPE);
    EXPECT_EQ(-1, Send("payload"));
    Stop();
    EXPECT_TRUE(ThreadExits());
    EXPECT_EQ(0U, Disconnects().Count());
}

TEST_F(TcpClientTest, SendTimeOutIsNoDisconnect) {
    Connect();
    FailSystemCall(SystemCall::SEND, EAGAIN, 502);
    EXPECT_EQ(0, Send("payload"));
    EXPECT_TRUE(ThreadExits());
    EXPECT_EQ(0U, Disconnects().Count());
}

TEST_F(TcpClientTest, FailedSelectIsNoDisconnectAndSendingGoesOn) {
    FailSystemCall(SystemCall::SELECT, EBADF);
    Connect();
    ExpectNotDisconnected();
    EXPECT_EQ(0, Send("payload"));
    EXPECT_EQ("payload", mSinkPeer.Receive(7));
}

TEST_F(TcpClientTest, StopIsNoDisconnect) {
    Connect();
    Stop();
    ExpectNotDisconnected();
}

TEST_F(TcpClientTest, ReadsThatWouldBlockCountOverTheWholeConnection) {
    Receive();
    FailSystemCall(SystemCall::READ, EAGAIN, 501);
    mPeer.Send(ClientSide::Frame("one"));
    EXPECT_TRUE(Delivers({"one"}));
    EXPECT_EQ(502, SystemCallCount(SystemCall::READ));
    EXPECT_EQ(0U, Disconnects().Count());
    EXPECT_THAT(mLog.Texts(4), IsEmpty());
    FailSystemCall(SystemCall::READ, EAGAIN, 2);  // the first ends a wait, which does not count
    mPeer.Send(ClientSide::Frame("two"));
    EXPECT_TRUE(ThreadExits());
    EXPECT_EQ(504, SystemCallCount(SystemCall::READ));
    EXPECT_THAT(mLog.Texts(4), ElementsAre("Recv Data timeout error.\n"));
    EXPECT_THAT(Disconnects().Items(), ElementsAre(std::to_string(HANDLE)));
    EXPECT_TRUE(mTransport->IsBroken());
    EXPECT_TRUE(Delivers({"one"}));
}

TEST_F(TcpClientTest, NewConnectionStartsItsOwnCount) {
    for (int connection = 0; connection < 2; ++connection) {
        Receive();
        FailSystemCall(SystemCall::READ, EAGAIN, 501);
        mPeer.Send(ClientSide::Frame("payload"));
        EXPECT_TRUE(mSide.Delivered().WaitForCount(static_cast<size_t>(connection) + 1));
        Stop();
        ResetSystemFaults();
    }
    EXPECT_THAT(mLog.Texts(4), IsEmpty());
}

TEST_F(TcpClientTest, StreamThatStallsOnAnIllegalHeadEndsTheThreadWhenTheBufferIsFull) {
    Receive();
    const Bytes illegal(READ_SIZE, '\xff');
    Feed({illegal, Bytes(ClientSide::REASSEMBLY_SIZE - READ_SIZE, '\xff')});
    EXPECT_TRUE(Eventually([] { return ReadsBegun() > 2; }));
    EXPECT_THAT(mLog.Texts(4), IsEmpty());
    EXPECT_TRUE(mLog.Has(1, "headLen:255, illegal.\n"));
    Feed({"!"});
    ExpectNotDisconnected();
    EXPECT_THAT(mLog.Texts(4), ElementsAre("memcpy_s failed!\n", "ParseAndSendData failed!\n"));
    EXPECT_EQ(0U, mSide.Delivered().Count());
    EXPECT_TRUE(mPeer.SeesEnd());
}

TEST_F(TcpClientTest, PeerThatNeverSendsALegalHeadIsCutOff) {
    Receive();
    const Bytes illegal(60000, '\0');
    EXPECT_ANY_THROW(for (int i = 0; i < 1000; ++i) { mPeer.Send(illegal); });
    ExpectNotDisconnected();
    EXPECT_THAT(mLog.Texts(4), ElementsAre("memcpy_s failed!\n", "ParseAndSendData failed!\n"));
}

TEST_F(TcpClientTest, IllegalPayloadLengthStallsTheStream) {
    Receive();
    mPeer.Send(ClientSide::Frame("one") + Bytes(1, 12) + LittleEndian32(1024001) + ClientSide::Frame("two"));
    EXPECT_TRUE(mLog.WaitFor(4, "payloadLen = 1024001, illegal.\n"));
    EXPECT_TRUE(Delivers({"one"}));
    Stop();
    EXPECT_TRUE(Delivers({"one"}));
    EXPECT_EQ(0U, Disconnects().Count());
}

TEST_F(TcpClientTest, LargeRestTakesNoFurtherBuffer) {
    const Bytes frame = ClientSide::Frame(Bytes(1000000, 'x'));
    const Bytes first = frame.substr(0, frame.size() - 1);
    ResetAllocationFaults();
    Receive();
    mPeer.Send(first);
    mPeer.Send("x");
    EXPECT_TRUE(mSide.Delivered().WaitForCount(1));
    EXPECT_EQ(2, LargeAllocationCount());
}

// A frame's fields may reach 66 bytes beyond it: what an earlier read left there must not be taken for them.
TEST_F(TcpClientTest, NothingOfAnEarlierReadFollowsALyingFrame) {
    const Bytes lying = "\x01" + LittleEndian32(9) + "\x14" + Bytes(4, 'x');
    mSide.mCallback.mOnData = [&lying](char* data, unsigned int length) {
        if (length == lying.size()) {
            EXPECT_EQ(Bytes(66, '\0'), Bytes(data + length, 66));
        }
    };
    Receive();
    const Bytes frame = ClientSide::Frame(Bytes(300, 'y'));
    const Bytes rest = frame.substr(9);
    Feed({frame, lying, frame.substr(0, 9), rest, lying.substr(0, 3), lying.substr(3)});
    EXPECT_TRUE(mSide.Delivered().WaitForCount(4));
    EXPECT_THAT(mSide.Delivered().Items(), ElementsAre(frame, lying, frame, lying));
}

TEST_F(TcpClientTest, OneTransportsFrameEndsTheOthersPendingOne) {
    RecordingCallback otherCallback;
    auto other = std::make_shared<OpenClient>(otherCallback, 10U);
    const int otherPort = FreePort();
    ASSERT_EQ(0, other->CreateTransports(ClientSide::RECEIVE, "", otherPort, mSide.mObserver));
    RawConnection otherPeer = RawConnection::To(otherPort);
    Receive();

    const Bytes frame = ClientSide::Frame("payload");
    mPeer.Send(frame.substr(0, 5));
    EXPECT_TRUE(Eventually([this] { return mTransport->Pending().load(); }));
    otherPeer.Send(frame);
    EXPECT_TRUE(otherCallback.mFrames.WaitForCount(1));
    EXPECT_TRUE(Eventually([this] { return !mTransport->Pending(); }));
    mPeer.Send(frame.substr(5));
    EXPECT_TRUE(Eventually([this] { return mTransport->Pending().load(); }));
    Stop();
    EXPECT_EQ(frame, mTransport->Buffered());
    EXPECT_EQ(0U, mSide.Delivered().Count());
    WithinSeconds([&] { other->StopTransports(); });
}

TEST_F(TcpClientTest, DisconnectMayDropTheLastReference) {
    const std::weak_ptr<OpenClient> watched = mTransport;
    mSide.mCallback.mOnDisconnect = [this] {
        mTransport->StopTransports();
        mTransport.reset();
    };
    Connect();
    mPeer.Close();
    EXPECT_TRUE(ThreadExits());
    EXPECT_TRUE(Eventually([&] { return watched.expired(); }));
    EXPECT_TRUE(mSinkPeer.SeesEnd());
}

TEST_F(TcpClientTest, StopSaysWhatItDoes) {
    Receive();
    Stop();
    EXPECT_THAT(mLog.Texts(2), ElementsAre("The transport will be stopped.\n", ClientSide::EXIT,
                                           "The transport has been stopped.\n"));
    EXPECT_LT(mLog.IndexOf(2, "The transport will be stopped.\n"), mLog.IndexOf(1, "joinable will join.\n"));
}

TEST_F(TcpClientTest, StatusStaysZero) {
    LUM_TRANSPORT_STATUS_E status = LUM_TRANSPORT_STATUS_FREE;
    Connect();
    EXPECT_EQ(0, mTransport->GetTransStatus(status));
    EXPECT_EQ(0, static_cast<int>(status));
    EXPECT_TRUE(mLog.Has(1, "mTransStatus :0 \n"));
    EXPECT_EQ(0, mTransport->StartTransports(ClientSide::RECEIVE));
}

}  // namespace
}  // namespace lumora_test
