// What only the server's transport does.
#include <arpa/inet.h>

#include <cerrno>
#include <future>

#include "tests/support/fake_securec.h"
#include "tests/transport/tcp_fixture.h"

namespace lumora_test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class TcpServerTest : public TcpFixture<ServerSide> {
protected:
    std::string BoundText(int port) const {
        return "After bind socket success, start to listen at port " +
               std::to_string(htons(static_cast<uint16_t>(port))) + ".\n";
    }
    // A success that wrote nothing, and said nothing.
    void ExpectNothingIsWritten() {
        mLog.Clear();
        mWritten = 4711;
        EXPECT_EQ(0, Send("payload"));
        EXPECT_EQ(0U, mWritten);
        EXPECT_THAT(mLog.Lines(), IsEmpty());
        EXPECT_EQ("", mSinkPeer.ReceiveSome(std::chrono::milliseconds(1)));
    }
};

TEST_F(TcpServerTest, PortIsLoggedAsItStandsInTheAddress) {
    ASSERT_EQ(0, Create(ServerSide::RECEIVE, "", 5000));
    const std::string port = std::to_string(htons(5000));
    EXPECT_THAT(mLog.Texts(2),
                ElementsAre("After bind socket success, start to listen at port " + port + ".\n",
                            "Start reveived thread success in server.\n"));
    EXPECT_TRUE(mLog.Has(1, "set non-blocking socket Succ, port = : 5000\n"));
}

TEST_F(TcpServerTest, TakenPortFailsAndStopsTheTransport) {
    RawListener taken(0);
    EXPECT_EQ(-1, Create(ServerSide::RECEIVE, "", taken.Port()));
    EXPECT_THAT(mLog.Texts(4),
                ElementsAre("bind socket error: Address already in use(errno: 98), will stop transport\n",
                            "SetupSocket error: 98\n"));
    EXPECT_TRUE(mLog.Has(1, "will stop transport\n"));
    EXPECT_THAT(mLog.Texts(0), ElementsAre("stop transport out\n"));
    EXPECT_LT(mLog.IndexOf(0, "stop transport out\n"), mLog.IndexOf(4, "SetupSocket error: 98\n"));
    EXPECT_FALSE(mTransport->IsRunning());
}

TEST_F(TcpServerTest, FailedListenStopsTheTransport) {
    FailSystemCall(SystemCall::LISTEN, EOPNOTSUPP);
    EXPECT_EQ(-1, CreateReceiving());
    EXPECT_THAT(mLog.Texts(4),
                ElementsAre("listen socket error: Operation not supported(errno: 95), will stop transport\n",
                            "SetupSocket error: 95\n"));
    EXPECT_TRUE(mLog.Has(2, BoundText(mPort))) << mLog.Dump();
    EXPECT_THAT(mLog.Texts(0), ElementsAre("stop transport out\n"));
}

TEST_F(TcpServerTest, ReceivingFailsWhenTheBufferCannotBeCleared) {
    FailBoundedCall(Bounded::MEMSET, 2);
    EXPECT_EQ(-1, CreateReceiving());
    EXPECT_THAT(mLog.Texts(4), ElementsAre("memset_s failed\n"));
    EXPECT_FALSE(mLog.Has(2, "Start reveived thread success in server.\n"));
}

TEST_F(TcpServerTest, ThreadEndsWhenItsBufferCannotBeCleared) {
    FailBoundedCall(Bounded::MEMSET, 3);
    ASSERT_EQ(0, CreateReceiving());
    EXPECT_TRUE(mLog.WaitFor(4, "memset_s failed!\n"));
    Stop();
    EXPECT_THAT(mLog.Texts(4), ElementsAre("memset_s failed!\n"));
    EXPECT_FALSE(mLog.Has(2, ServerSide::EXIT));
}

TEST_F(TcpServerTest, ListensOnThePortOfTheDataChannel) {
    ASSERT_EQ(0, Create(ServerSide::RECEIVE, "", 6666));
    mPeer = RawConnection::To(6666);
    mPeer.Send(ServerSide::Frame("payload"));
    EXPECT_TRUE(Delivers({"payload"}));
}

TEST_F(TcpServerTest, PayloadIsDeliveredWithoutItsHead) {
    Receive();
    mPeer.Send(ClientFrame(20, "0123456789"));
    EXPECT_TRUE(mSide.Delivered().WaitForCount(1));
    EXPECT_THAT(mSide.Delivered().Items(), ElementsAre(RecordingObserver::Item(20, "0123456789")));
}

TEST_F(TcpServerTest, ObserverIsCopied) {
    Receive();
    mSide.mObserver.OnData = nullptr;
    mPeer.Send(ServerSide::Frame("payload"));
    EXPECT_TRUE(Delivers({"payload"}));
}

TEST_F(TcpServerTest, DataIsDroppedWithoutAReceiveFunction) {
    mSide.mObserver.OnData = nullptr;
    Receive();
    mPeer.Send(ServerSide::Frame("payload"));
    mPeer.Close();
    EXPECT_TRUE(ThreadExits());
    EXPECT_THAT(mLog.Texts(4), IsEmpty());
}

TEST_F(TcpServerTest, EmptyPayloadWaitsForMoreData) {
    Receive();
    mPeer.Send(ServerSide::Frame(""));
    EXPECT_TRUE(Eventually([] { return ReadsBegun() > 1; }));
    EXPECT_EQ(0U, mSide.Delivered().Count());
    mPeer.Send(ServerSide::Frame("next"));
    EXPECT_TRUE(Delivers({"", "next"}));
}

TEST_F(TcpServerTest, IncompleteFrameSaysSo) {
    Receive();
    const Bytes frame = ServerSide::Frame(Bytes(100, 'x'));
    Feed({frame.substr(0, 30)});
    EXPECT_TRUE(mLog.WaitFor(1, "payloadLen  = 100, length = 30, we will not parse\n"));
    Feed({frame.substr(30)});
    EXPECT_TRUE(Delivers({Bytes(100, 'x')}));
}

// One byte of the frame is missing when a whole read's worth of data waits behind it: more than there is room
// for.
TEST_F(TcpServerTest, LargestFrameFitsTogetherWithWhatFollowsIt) {
    Receive();
    const Bytes largest = ServerSide::Frame(Bytes(5242886, 'x'));
    const Bytes next = ServerSide::Frame(Bytes(1048000, 'y'));
    std::vector<Bytes> pieces;
    const size_t held = largest.size() - 1;
    for (size_t cut = 0; cut < held; cut += lumoraAiModule::READ_SIZE) {
        pieces.push_back(largest.substr(cut, std::min<size_t>(lumoraAiModule::READ_SIZE, held - cut)));
    }
    ASSERT_GT(lumoraAiModule::READ_SIZE, ServerSide::REASSEMBLY_SIZE - held);
    const Bytes rest = largest.substr(held) + next + next;
    pieces.push_back(rest.substr(0, lumoraAiModule::READ_SIZE));
    pieces.push_back(rest.substr(lumoraAiModule::READ_SIZE));
    Feed(pieces);
    EXPECT_TRUE(Delivers({Bytes(5242886, 'x'), Bytes(1048000, 'y'), Bytes(1048000, 'y')}));
    EXPECT_THAT(mLog.Texts(4), IsEmpty());
}

TEST_F(TcpServerTest, ConsecutiveReadsThatWouldBlockCount) {
    Receive();
    for (const char* payload : {"one", "two", "three"}) {
        FailSystemCall(SystemCall::READ, EAGAIN, 501);
        mPeer.Send(ServerSide::Frame(payload));
        EXPECT_TRUE(Eventually([&] {
            const auto items = mSide.Delivered().Items();
            return !items.empty() && items.back() == ServerSide::Item(payload);
        }));
    }
    EXPECT_EQ(3 * 502, SystemCallCount(SystemCall::READ));
    EXPECT_THAT(mLog.Texts(4), IsEmpty());
}

TEST_F(TcpServerTest, The502ndReadThatWouldBlockEndsTheThreadAndBreaksNothing) {
    Connect();
    FailSystemCall(SystemCall::READ, EAGAIN, 502);
    mPeer.Send(ServerSide::Frame("payload"));
    EXPECT_TRUE(ThreadExits());
    EXPECT_EQ(502, SystemCallCount(SystemCall::READ));
    EXPECT_THAT(mLog.Texts(4), ElementsAre("Recv Data timeout error, will exit.\n"));
    EXPECT_FALSE(mTransport->IsBroken());
    EXPECT_FALSE(mTransport->IsRunning());
    EXPECT_EQ(0U, mSide.Delivered().Count());
    ExpectNothingIsWritten();
}

TEST_F(TcpServerTest, NothingIsWrittenOnceReceivingHasFailed) {
    FailSystemCall(SystemCall::SELECT, EBADF);
    Connect();
    EXPECT_TRUE(ThreadExits());
    ExpectNothingIsWritten();
}

TEST_F(TcpServerTest, SendInProgressWritesNoMoreOnceThePeerHasLeft) {
    Connect();
    BeforeSystemCall(SystemCall::SEND, [this] {
        mPeer.Close();
        EXPECT_TRUE(ThreadExits());
    });
    LimitTransfer(SystemCall::SEND, 3);
    EXPECT_EQ(0, Send("payload"));
    EXPECT_EQ(3U, mWritten);
}

// After an orderly close the first send, and every later one, writes nothing and does not fail.
TEST_F(TcpServerTest, NothingIsWrittenOnceThePeerHasClosed) {
    Connect();
    mPeer.Close();
    EXPECT_TRUE(ThreadExits());
    EXPECT_FALSE(mTransport->IsBroken());
    ExpectNothingIsWritten();
    ExpectNothingIsWritten();
}

TEST_F(TcpServerTest, BrokenChannelRefusesToSend) {
    Connect();
    mPeer.Reset();
    EXPECT_TRUE(ThreadExits());
    EXPECT_EQ(-1, Send("payload"));
    EXPECT_EQ(0U, mWritten);
    EXPECT_THAT(mLog.Texts(4), ElementsAre(NO_CHANNEL));
    EXPECT_EQ("", mSinkPeer.ReceiveSome(std::chrono::milliseconds(1)));
}

TEST_F(TcpServerTest, SendBeforeItsDirectionExistsLeavesTheCountAlone) {
    EXPECT_EQ(-1, Send("payload"));
    EXPECT_EQ(4711U, mWritten);
    EXPECT_THAT(mLog.Texts(4), ElementsAre(NO_CHANNEL));
    Receive();
    EXPECT_EQ(-1, Send("payload"));
    EXPECT_EQ(4711U, mWritten);
}

TEST_F(TcpServerTest, SendAfterAStopClearsTheCount) {
    Connect();
    Stop();
    EXPECT_EQ(-1, Send("payload"));
    EXPECT_EQ(0U, mWritten);
    EXPECT_THAT(mLog.Texts(4), ElementsAre(NO_CHANNEL));
}

TEST_F(TcpServerTest, SendNeedsTheReceivingDirection) {
    ConnectSending();
    ExpectNothingIsWritten();
}

TEST_F(TcpServerTest, SendSaysNothingOfItsSuccess) {
    Connect();
    mLog.Clear();
    EXPECT_EQ(0, Send("payload"));
    EXPECT_THAT(mLog.Lines(), IsEmpty());
}

TEST_F(TcpServerTest, FailedWriteIsReportedTwice) {
    Connect();
    FailSystemCall(SystemCall::SEND, EPIPE);
    EXPECT_EQ(-1, Send("payload"));
    EXPECT_THAT(mLog.Texts(4), ElementsAre("write failed error: Broken pipe(errno: 32)\n",
                                           "SendData will stop transport\n"));
}

TEST_F(TcpServerTest, SendInProgressStopsAtItsNextPass) {
    Connect();
    std::future<int> stop;
    BeforeSystemCall(SystemCall::SEND, [this, &stop] {
        stop = std::async(std::launch::async, [this] { return mTransport->StopTransports(); });
        EXPECT_TRUE(Eventually([this] { return !mTransport->IsRunning(); }));
    });
    LimitTransfer(SystemCall::SEND, 3);
    EXPECT_EQ(0, Send("payload"));
    EXPECT_EQ(3U, mWritten);
    EXPECT_EQ(1, SystemCallCount(SystemCall::SEND));
    EXPECT_EQ(0, stop.get());
}

TEST_F(TcpServerTest, StopSaysWhatItDoes) {
    Receive();
    mLog.Clear();
    Stop();
    EXPECT_THAT(mLog.Texts(1), ElementsAre("will stop transport\n", "joinable will join.\n"));
    EXPECT_THAT(mLog.Texts(0), ElementsAre("stop transport out\n"));
    EXPECT_THAT(mLog.Texts(2), ElementsAre(ServerSide::EXIT));
}

TEST_F(TcpServerTest, StopForgetsThatTheChannelWasBrokenOnlyWithASendSocket) {
    Connect();
    mPeer.Reset();
    EXPECT_TRUE(ThreadExits());
    Stop();
    EXPECT_FALSE(mTransport->IsBroken());

    mLog.Clear();
    Receive();
    mPeer.Reset();
    EXPECT_TRUE(ThreadExits());
    Stop();
    EXPECT_TRUE(mTransport->IsBroken());
}

TEST_F(TcpServerTest, StatusStaysZero) {
    LUM_TRANSPORT_STATUS_E status = LUM_TRANSPORT_STATUS_FREE;
    Connect();
    EXPECT_EQ(0, mTransport->GetTransStatus(status));
    EXPECT_EQ(0, static_cast<int>(status));
    EXPECT_TRUE(mLog.Has(1, "mTransStatus :0 \n"));
}

}  // namespace
}  // namespace lumora_test
