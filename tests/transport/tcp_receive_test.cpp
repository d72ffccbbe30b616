// What both sides share in receiving: accept loop, receive loop and its end.
#include <pthread.h>

#include <cerrno>
#include <csignal>

#include "tests/transport/tcp_fixture.h"

namespace lumora_test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr size_t READ_SIZE = 1048576;

template <typename Side>
class TcpReceiveTest : public TcpFixture<Side> {};

TYPED_TEST_SUITE(TcpReceiveTest, Sides, SideNames);

TYPED_TEST(TcpReceiveTest, WaitsForAConnection) {
    ASSERT_EQ(0, this->CreateReceiving());
    EXPECT_TRUE(this->mLog.WaitFor(1, "wait for connections\n"));
    EXPECT_TRUE(Eventually([] { return SystemCallCount(SystemCall::ACCEPT4) > 5; }));
    EXPECT_EQ(0, SystemCallCount(SystemCall::SELECT));
    this->mPeer = RawConnection::To(this->mPort);
    this->mPeer.Send(this->mSide.Frame("payload"));
    EXPECT_TRUE(this->Delivers({"payload"}));
}

TYPED_TEST(TcpReceiveTest, FailedAcceptEndsTheThread) {
    FailSystemCall(SystemCall::ACCEPT4, ECONNABORTED, 1, 2);
    ASSERT_EQ(0, this->CreateReceiving());
    EXPECT_TRUE(this->mLog.WaitFor(4, "WaitForConnect failed!\n"));
    EXPECT_THAT(this->mLog.Texts(4),
                ElementsAre("accept socket error: Software caused connection abort(errno: 103)\n",
                            "WaitForConnect failed!\n"));
    this->Stop();
    EXPECT_FALSE(this->mLog.Has(2, TypeParam::EXIT));
}

TYPED_TEST(TcpReceiveTest, NoPeerCanConnectAfterAFailedAccept) {
    FailSystemCall(SystemCall::ACCEPT4, ENOMEM);
    ASSERT_EQ(0, this->CreateReceiving());
    EXPECT_TRUE(this->mLog.WaitFor(4, "WaitForConnect failed!\n"));
    RawListener sameNumber(this->mPort);  // would fail while the port is taken
    EXPECT_EQ(this->mPort, sameNumber.Port());
}

TYPED_TEST(TcpReceiveTest, ThreadWithoutMemoryEnds) {
    FailLargeAllocation(READ_SIZE, 2);  // the first is the buffer for rests
    ASSERT_EQ(0, this->CreateReceiving());
    EXPECT_TRUE(this->mLog.WaitFor(4, "new memory failed, low memory!\n"));
    this->Stop();
    EXPECT_FALSE(this->mLog.Has(2, TypeParam::EXIT));
    EXPECT_EQ(0, SystemCallCount(SystemCall::ACCEPT4));
}

TYPED_TEST(TcpReceiveTest, ThreeFramesOfOneReadAreDeliveredInOrder) {
    this->Receive();
    this->Feed({this->mSide.Frame("one") + this->mSide.Frame("two") + this->mSide.Frame("three")});
    EXPECT_TRUE(this->Delivers({"one", "two", "three"}));
    EXPECT_EQ(1, SystemCallCount(SystemCall::READ));
}

TYPED_TEST(TcpReceiveTest, SplitFrameIsDeliveredOnceWithItsLastByte) {
    this->Receive();
    const Bytes frame = this->mSide.Frame("payload");
    this->Feed({frame.substr(0, 8), frame.substr(8, frame.size() - 9)});
    EXPECT_TRUE(Eventually([] { return ReadsBegun() > 2; }));
    EXPECT_EQ(0U, this->mSide.Delivered().Count());
    this->Feed({frame.substr(frame.size() - 1)});
    EXPECT_TRUE(this->Delivers({"payload"}));
}

TYPED_TEST(TcpReceiveTest, PeerMayFeedOneByteAtATime) {
    this->Receive();
    this->mPeer.SendInPieces(this->mSide.Frame("first") + this->mSide.Frame("second"), 1);
    EXPECT_TRUE(this->Delivers({"first", "second"}));
}

TYPED_TEST(TcpReceiveTest, EveryReadMayBeOneByteLong) {
    this->Receive();
    LimitTransfer(SystemCall::READ, 1);
    std::vector<Bytes> payloads;
    Bytes stream;
    for (unsigned int length = 1; length < 120; ++length) {
        payloads.push_back(Bytes(length, static_cast<char>(length)));
        stream += this->mSide.Frame(payloads.back());
    }
    this->mPeer.Send(stream);
    EXPECT_TRUE(this->Delivers(payloads));
}

TYPED_TEST(TcpReceiveTest, FramesMayBeCutIntoReadsOfAnySize) {
    this->Receive();
    std::vector<Bytes> payloads;
    Bytes stream;
    for (unsigned int length = 1; length < 300; length += 7) {
        payloads.push_back(Bytes(length, static_cast<char>(length)));
        stream += this->mSide.Frame(payloads.back());
    }
    std::vector<Bytes> pieces;
    for (size_t cut = 0, size = 1; cut < stream.size(); cut += size, size = size * 7 % 113 + 1) {
        pieces.push_back(stream.substr(cut, size));
    }
    this->Feed(pieces);
    EXPECT_TRUE(this->Delivers(payloads));
}

TYPED_TEST(TcpReceiveTest, LargeFramesComeThroughWhole) {
    this->Receive();
    std::vector<Bytes> payloads;
    for (char fill = 'a'; fill < 'e'; ++fill) {
        payloads.push_back(Bytes(1024000, fill));
        this->mPeer.Send(this->mSide.Frame(payloads.back()));
    }
    EXPECT_TRUE(this->Delivers(payloads));
}

TYPED_TEST(TcpReceiveTest, FullReadIsFollowedByTheSpareBytes) {
    this->Receive();
    Bytes stream;
    while (stream.size() < READ_SIZE) {
        const size_t head = this->mSide.Frame("").size();
        stream += this->mSide.Frame(Bytes(std::min<size_t>(500000, READ_SIZE - stream.size() - head), 'x'));
    }
    ASSERT_EQ(READ_SIZE, stream.size());
    this->Feed({stream, this->mSide.Frame("after")});
    EXPECT_TRUE(this->mSide.Delivered().WaitForCount(4));
    EXPECT_EQ(this->mSide.Item("after"), this->mSide.Delivered().Items().back());
}

TYPED_TEST(TcpReceiveTest, OnlyTheFirstPeerIsHeard) {
    this->Receive();
    RawConnection second = RawConnection::To(this->mPort);
    second.Send(this->mSide.Frame("second"));
    this->mPeer.Send(this->mSide.Frame("first"));
    EXPECT_TRUE(this->Delivers({"first"}));
    this->Stop();
    EXPECT_TRUE(second.SeesEnd());
    EXPECT_EQ(1U, this->mSide.Delivered().Count());
}

TYPED_TEST(TcpReceiveTest, OnceDataHaveComeTheReadItselfWaitsForMore) {
    IgnoreReceiveTimeouts();
    this->Receive();
    for (int i = 1; i <= 3; ++i) {
        this->mPeer.Send(this->mSide.Frame("payload"));
        EXPECT_TRUE(this->mSide.Delivered().WaitForCount(static_cast<size_t>(i)));
        EXPECT_TRUE(Eventually([i] { return ReadsBegun() == i + 1; }));
    }
    EXPECT_EQ(1, SystemCallCount(SystemCall::SELECT));
}

TYPED_TEST(TcpReceiveTest, WithoutDataForHalfASecondSelectWaitsAgain) {
    this->Receive();
    this->mPeer.Send(this->mSide.Frame("one"));
    EXPECT_TRUE(Eventually([] { return SystemCallCount(SystemCall::SELECT) > 1; }));
    this->mPeer.Send(this->mSide.Frame("two"));
    EXPECT_TRUE(this->Delivers({"one", "two"}));
    EXPECT_THAT(this->mLog.Texts(4), IsEmpty());
}

// As it is when the process was halted meanwhile.
TYPED_TEST(TcpReceiveTest, WaitForMoreDataMayBeInterrupted) {
    this->Receive();
    this->mPeer.Send(this->mSide.Frame("one"));
    EXPECT_TRUE(this->Delivers({"one"}));
    FailSystemCall(SystemCall::READ, EINTR);
    this->mPeer.Send(this->mSide.Frame("two"));
    EXPECT_TRUE(this->Delivers({"one", "two"}));
    EXPECT_EQ(2, SystemCallCount(SystemCall::SELECT));
    EXPECT_FALSE(this->mTransport->IsBroken());
}

TYPED_TEST(TcpReceiveTest, FailedSelectEndsTheThreadAndBreaksNothing) {
    FailSystemCall(SystemCall::SELECT, EBADF);
    this->Receive();
    EXPECT_TRUE(this->ThreadExits());
    EXPECT_THAT(this->mLog.Texts(4), ElementsAre("select error, ret = -1(Bad file descriptor)\n"));
    EXPECT_FALSE(this->mTransport->IsRunning());
    EXPECT_FALSE(this->mTransport->IsBroken());
    EXPECT_TRUE(this->mPeer.SeesEnd());
}

TYPED_TEST(TcpReceiveTest, PeersEndIsSeenAtOnce) {
    this->Receive();
    FailSystemCall(SystemCall::READ, EAGAIN);  // what a stale errno would look like at the end
    this->mPeer.ShutdownSending();
    EXPECT_TRUE(this->ThreadExits());
    EXPECT_EQ(2, SystemCallCount(SystemCall::READ));
    EXPECT_EQ(TypeParam::CLOSE_BREAKS, this->mTransport->IsBroken());
    EXPECT_FALSE(this->mTransport->IsRunning());
    EXPECT_THAT(this->mLog.Texts(4), IsEmpty());
}

TYPED_TEST(TcpReceiveTest, PeersResetBreaksTheChannel) {
    this->Receive();
    this->mPeer.Reset();
    EXPECT_TRUE(this->ThreadExits());
    EXPECT_TRUE(this->mTransport->IsBroken());
    EXPECT_THAT(this->mLog.Texts(4), IsEmpty());
}

TYPED_TEST(TcpReceiveTest, InterruptedReadBreaksTheChannel) {
    this->Receive();
    FailSystemCall(SystemCall::READ, EINTR);
    this->mPeer.Send(this->mSide.Frame("payload"));
    EXPECT_TRUE(this->ThreadExits());
    EXPECT_TRUE(this->mTransport->IsBroken());
    EXPECT_EQ(0U, this->mSide.Delivered().Count());
}

TYPED_TEST(TcpReceiveTest, WholeFramesBeforeThePeersEndAreDelivered) {
    this->Receive();
    this->mPeer.Send(this->mSide.Frame("one") + this->mSide.Frame("two") +
                     this->mSide.Frame("half").substr(0, 9));
    this->mPeer.Close();
    EXPECT_TRUE(this->ThreadExits());
    EXPECT_TRUE(this->Delivers({"one", "two"}));
}

TYPED_TEST(TcpReceiveTest, ThreadBlocksAllSignals) {
    std::atomic<int> open{-1};
    this->mSide.OnDelivery([&open] {
        sigset_t blocked;
        pthread_sigmask(SIG_SETMASK, nullptr, &blocked);
        int count = 0;
        for (int signal = 1; signal < 32; ++signal) {
            const bool cannotBe = signal == SIGKILL || signal == SIGSTOP;
            count += !cannotBe && sigismember(&blocked, signal) == 0 ? 1 : 0;
        }
        open = count;
    });
    sigset_t before;
    pthread_sigmask(SIG_SETMASK, nullptr, &before);
    this->Receive();
    sigset_t after;
    pthread_sigmask(SIG_SETMASK, nullptr, &after);
    this->mPeer.Send(this->mSide.Frame("payload"));
    EXPECT_TRUE(Eventually([&open] { return open >= 0; }));
    EXPECT_EQ(0, open);
    for (int signal = 1; signal < 32; ++signal) {
        EXPECT_EQ(sigismember(&before, signal), sigismember(&after, signal)) << signal;
    }
}

TYPED_TEST(TcpReceiveTest, DeliveringTakesNoMemory) {
    this->mSide.OnDelivery([] { FailAllocation(1, ALWAYS); });
    this->Receive();
    const Bytes frame = this->mSide.Frame("payload");
    std::vector<Bytes> pieces = {frame};
    for (int i = 0; i < 10; ++i) {
        pieces.insert(pieces.end(), {frame + frame, frame.substr(0, 9), frame.substr(9)});
    }
    this->Feed(pieces);
    EXPECT_TRUE(this->Delivers(std::vector<Bytes>(31, "payload")));
}

TYPED_TEST(TcpReceiveTest, FloodOfHugeFramesTakesTwoBuffers) {
    this->Receive();
    EXPECT_EQ(2, LargeAllocationCount());
    const Bytes frame = this->mSide.Frame(Bytes(1000000, 'x'));
    ResetAllocationFaults();
    for (int i = 0; i < 20; ++i) {
        this->mPeer.Send(frame);
        ASSERT_TRUE(this->mSide.Delivered().WaitForCount(static_cast<size_t>(i)));
    }
    EXPECT_LE(LargeAllocationCount(), 20);  // at most a rest of each, moved and freed again
}

}  // namespace
}  // namespace lumora_test
