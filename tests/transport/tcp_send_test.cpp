// What both sides share in sending.
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <future>
#include <thread>

#include "tests/transport/tcp_fixture.h"

namespace lumora_test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr char TIMED_OUT[] = "SendData timeout: Resource temporarily unavailable(errno: 11)\n";

template <typename Side>
class TcpSendTest : public TcpFixture<Side> {
protected:
    void ExpectRefused() {
        this->mLog.Clear();
        this->mWritten = 4711;
        EXPECT_EQ(-1, this->Send("refused"));
        EXPECT_EQ(0U, this->mWritten);
        EXPECT_THAT(this->mLog.Texts(4), ElementsAre(NO_CHANNEL));
    }
    int SendApart(const Bytes& head, const Bytes& payload) {
        const lumoraAiModule::FrameParts frame = {head.data(), static_cast<unsigned int>(head.size()),
                                                  payload.data(), static_cast<unsigned int>(payload.size())};
        return this->mTransport->SendFrame(frame, &this->mWritten, 0);
    }
    void ExpectTimedOut() {
        EXPECT_TRUE(this->mTransport->IsBroken());
        EXPECT_FALSE(this->mTransport->IsRunning());
        EXPECT_FALSE(this->mTransport->HasSendSocket());
        EXPECT_TRUE(this->ThreadExits());
        ExpectRefused();
    }
};

TYPED_TEST_SUITE(TcpSendTest, Sides, SideNames);

TYPED_TEST(TcpSendTest, BytesGoOutAsTheyAre) {
    this->Connect();
    const Bytes bytes("\0\xff\n\x06 any", 8);
    EXPECT_EQ(0, this->Send(bytes));
    EXPECT_EQ(8U, this->mWritten);
    EXPECT_EQ(bytes, this->mSinkPeer.Receive(8));
}

TYPED_TEST(TcpSendTest, HeadAndPayloadThatLieApartGoOutAsOneFrame) {
    this->Connect();
    EXPECT_EQ(0, this->SendApart("head", "and payload"));
    EXPECT_EQ(15U, this->mWritten);
    EXPECT_EQ(1, SystemCallCount(SystemCall::SEND));
    EXPECT_EQ("headand payload", this->mSinkPeer.Receive(15));
}

TYPED_TEST(TcpSendTest, ShortWritesOfHeadAndPayloadAreContinued) {
    for (const std::size_t most : std::initializer_list<std::size_t>{1, 3, 4, 5, 14}) {
        SCOPED_TRACE(most);
        this->Connect();
        LimitTransfer(SystemCall::SEND, most);
        EXPECT_EQ(0, this->SendApart("head", "and payload"));
        EXPECT_EQ(15U, this->mWritten);
        EXPECT_EQ("headand payload", this->mSinkPeer.Receive(15));
        this->Stop();
        ResetSystemFaults();
    }
}

TYPED_TEST(TcpSendTest, NothingIsSentForNothing) {
    this->Connect();
    EXPECT_EQ(0, this->Send(""));
    EXPECT_EQ(0U, this->mWritten);
    EXPECT_EQ(0, SystemCallCount(SystemCall::SEND));
}

TYPED_TEST(TcpSendTest, LargeBlocksGoOutWhole) {
    this->Connect();
    const Bytes bytes(8000000, 'x');
    std::thread reader([this, &bytes] { EXPECT_TRUE(bytes == this->mSinkPeer.Receive(bytes.size())); });
    EXPECT_EQ(0, this->Send(bytes));
    reader.join();
    EXPECT_EQ(bytes.size(), this->mWritten);
}

// The kernel holds back a segment that more was promised for up to 200 ms.
TYPED_TEST(TcpSendTest, EndOfABurstIsNotHeldBack) {
    constexpr int BURSTS = 100;
    constexpr int FRAMES = 20;
    const Bytes frame(64, 'x');
    for (const bool receives : {false, true}) {
        SCOPED_TRACE(receives ? "while data comes" : "while the receive thread waits");
        this->Connect();
        std::atomic<bool> ended{false};
        std::thread peer([&] {
            while (receives && !ended) {
                this->mPeer.Send(TypeParam::Frame("abc"));
                std::this_thread::sleep_for(std::chrono::microseconds(50));
            }
        });
        int late = 0;
        for (int burst = 0; burst < BURSTS; ++burst) {
            for (int i = 0; i < FRAMES; ++i) {
                EXPECT_EQ(0, this->Send(frame));
            }
            const auto sent = std::chrono::steady_clock::now();
            EXPECT_EQ(frame.size() * FRAMES, this->mSinkPeer.Receive(frame.size() * FRAMES).size());
            late += std::chrono::steady_clock::now() - sent > std::chrono::milliseconds(100) ? 1 : 0;
        }
        EXPECT_LT(late, BURSTS / 10);
        ended = true;
        peer.join();
        this->Stop();
    }
}

TYPED_TEST(TcpSendTest, ShortWritesAreContinued) {
    this->Connect();
    LimitTransfer(SystemCall::SEND, 3);
    EXPECT_EQ(0, this->Send("0123456789"));
    EXPECT_EQ(10U, this->mWritten);
    EXPECT_EQ(4, SystemCallCount(SystemCall::SEND));
    EXPECT_EQ("0123456789", this->mSinkPeer.Receive(10));
}

TYPED_TEST(TcpSendTest, After501WritesThatWouldBlockItStillGoesOn) {
    this->Connect();
    FailSystemCall(SystemCall::SEND, EAGAIN, 501);
    EXPECT_EQ(0, this->Send("payload"));
    EXPECT_EQ(7U, this->mWritten);
    EXPECT_EQ(502, SystemCallCount(SystemCall::SEND));
    EXPECT_THAT(this->mLog.Texts(4), IsEmpty());
}

TYPED_TEST(TcpSendTest, OnlyConsecutiveWritesThatWouldBlockCount) {
    this->Connect();
    LimitTransfer(SystemCall::SEND, 4);
    FailSystemCallInTurns(SystemCall::SEND, EINTR, 501, 1);
    EXPECT_EQ(0, this->Send("0123456789"));
    EXPECT_EQ(10U, this->mWritten);
    EXPECT_EQ(3 * 502, SystemCallCount(SystemCall::SEND));
    EXPECT_EQ("0123456789", this->mSinkPeer.Receive(10));
}

TYPED_TEST(TcpSendTest, The502ndWriteThatWouldBlockIsATimeOut) {
    this->Connect();
    FailSystemCall(SystemCall::SEND, EAGAIN, 502);
    EXPECT_EQ(0, this->Send("payload"));
    EXPECT_EQ(0U, this->mWritten);
    EXPECT_EQ(502, SystemCallCount(SystemCall::SEND));
    EXPECT_THAT(this->mLog.Texts(4), ElementsAre(TIMED_OUT));
    EXPECT_TRUE(this->mSinkPeer.SeesEnd());
    this->ExpectTimedOut();
}

TYPED_TEST(TcpSendTest, InterruptedWritesCountLikeThoseThatWouldBlock) {
    this->Connect();
    FailSystemCall(SystemCall::SEND, EINTR, 502);
    EXPECT_EQ(0, this->Send("payload"));
    EXPECT_THAT(this->mLog.Texts(4), ElementsAre("SendData timeout: Interrupted system call(errno: 4)\n"));
    this->ExpectTimedOut();
}

TYPED_TEST(TcpSendTest, TimeOutShowsInAShortCount) {
    this->Connect();
    LimitTransfer(SystemCall::SEND, 4);
    FailSystemCall(SystemCall::SEND, EAGAIN, 502, 1);
    EXPECT_EQ(0, this->Send("payload"));
    EXPECT_EQ(4U, this->mWritten);
    EXPECT_THAT(this->mLog.Texts(4), ElementsAre(TIMED_OUT));
}

TYPED_TEST(TcpSendTest, PeerThatReadsNothingTimesOut) {
    this->Connect();
    const Bytes bytes(32000000, 'x');
    EXPECT_EQ(0, this->Send(bytes));
    EXPECT_LT(0U, this->mWritten);
    EXPECT_GT(bytes.size(), this->mWritten);
    EXPECT_THAT(this->mLog.Texts(4), ElementsAre(TIMED_OUT));
    this->ExpectTimedOut();
}

TYPED_TEST(TcpSendTest, TimeOutArgumentIsIgnored) {
    this->Connect();
    FailSystemCall(SystemCall::SEND, EAGAIN, 501);
    EXPECT_EQ(0, this->mTransport->SendData("x", 1, &this->mWritten, 1));
    EXPECT_EQ(1U, this->mWritten);
}

TYPED_TEST(TcpSendTest, FailedWriteEndsBothDirections) {
    this->Connect();
    FailSystemCall(SystemCall::SEND, ENOBUFS);
    EXPECT_EQ(-1, this->Send("payload"));
    EXPECT_EQ(0U, this->mWritten);
    EXPECT_TRUE(this->mSinkPeer.SeesEnd());
    EXPECT_TRUE(this->ThreadExits());
    EXPECT_TRUE(this->mPeer.SeesEnd());
    EXPECT_FALSE(this->mTransport->IsBroken());
    this->ExpectRefused();
}

// Both come of the same cause, and either may be noticed first.
TYPED_TEST(TcpSendTest, FailedWriteDoesNotHideThatThePeerHasLeft) {
    this->Connect();
    std::promise<void> reading;
    std::promise<void> failed;
    BeforeSystemCall(SystemCall::READ, [&] {
        reading.set_value();
        failed.get_future().wait();
    });
    this->mPeer.Close();
    reading.get_future().wait();
    FailSystemCall(SystemCall::SEND, EPIPE);
    EXPECT_EQ(-1, this->Send("payload"));
    failed.set_value();
    EXPECT_TRUE(this->ThreadExits());
    EXPECT_EQ(TypeParam::CLOSE_BREAKS, this->mTransport->IsBroken());
}

TYPED_TEST(TcpSendTest, PeerThatLeavesDoesNotEndTheProcess) {
    struct sigaction disposition = {};
    sigaction(SIGPIPE, nullptr, &disposition);
    ASSERT_EQ(SIG_DFL, disposition.sa_handler);
    this->Connect();
    this->mSinkPeer.Close();
    EXPECT_TRUE(Eventually([this] { return this->Send("payload") == -1; }));
    EXPECT_EQ(1U, this->mLog.Texts(4).front().find("rite failed error: Broken pipe(errno: 32)"))
        << this->mLog.Dump();
    sigaction(SIGPIPE, nullptr, &disposition);
    EXPECT_EQ(SIG_DFL, disposition.sa_handler);
}

TYPED_TEST(TcpSendTest, PeerThatResetsDoesNotEndTheProcess) {
    this->Connect();
    this->mSinkPeer.Reset();
    EXPECT_TRUE(Eventually([this] { return this->Send("payload") == -1; }));
    this->ExpectRefused();
}

TYPED_TEST(TcpSendTest, SecondSendingDirectionReplacesTheFirst) {
    this->Connect();
    RawConnection first = std::move(this->mSinkPeer);
    this->ConnectSending();
    EXPECT_TRUE(first.SeesEnd());
    EXPECT_EQ(0, this->Send("payload"));
    EXPECT_EQ("payload", this->mSinkPeer.Receive(7));
}

TYPED_TEST(TcpSendTest, SendersTakeTurns) {
    this->Connect();
    LimitTransfer(SystemCall::SEND, 100);
    std::vector<std::thread> senders;
    for (char fill = 'a'; fill < 'e'; ++fill) {
        senders.emplace_back([this, fill] {
            unsigned int written = 0;
            const Bytes block(1000, fill);
            EXPECT_EQ(0, this->mTransport->SendData(block.data(), 1000, &written, 0));
            EXPECT_EQ(1000U, written);
        });
    }
    for (int i = 0; i < 4; ++i) {
        const Bytes block = this->mSinkPeer.Receive(1000);
        EXPECT_EQ(Bytes(1000, block[0]), block);
    }
    for (std::thread& sender : senders) {
        sender.join();
    }
}

TYPED_TEST(TcpSendTest, DestroyingClosesTheSendingDirectionOnly) {
    this->Connect();
    EXPECT_EQ(0, this->mTransport->DestoryTransports());
    EXPECT_TRUE(this->mSinkPeer.SeesEnd());
    EXPECT_FALSE(this->mTransport->IsRunning());
    EXPECT_FALSE(this->mTransport->IsBroken());
    EXPECT_TRUE(this->ThreadExits());
    this->ExpectRefused();
}

TYPED_TEST(TcpSendTest, DestroyingForgetsThatTheChannelWasBroken) {
    this->Connect();
    this->mPeer.Reset();
    EXPECT_TRUE(this->ThreadExits());
    EXPECT_TRUE(this->mTransport->IsBroken());
    EXPECT_EQ(0, this->mTransport->DestoryTransports());
    EXPECT_FALSE(this->mTransport->IsBroken());
}

}  // namespace
}  // namespace lumora_test
