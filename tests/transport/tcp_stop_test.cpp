// Stopping and dropping a transport in every state of its receive thread. If waits for data have no
// time-out, a thread that is not woken would never end.
#include <cerrno>
#include <condition_variable>
#include <future>
#include <mutex>
#include <thread>

#include "tests/transport/tcp_fixture.h"

namespace lumora_test {
namespace {

// Opens once.
class Gate {
public:
    void Open() {
        const std::lock_guard<std::mutex> lock(mMutex);
        mIsOpen = true;
        mChanged.notify_all();
    }
    void Wait() {
        std::unique_lock<std::mutex> lock(mMutex);
        mChanged.wait(lock, [this] { return mIsOpen; });
    }

private:
    std::mutex mMutex;
    std::condition_variable mChanged;
    bool mIsOpen = false;
};

template <typename Side>
class TcpStopTest : public TcpFixture<Side> {
protected:
    TcpStopTest() { IgnoreReceiveTimeouts(); }

    bool StopIsJoining() { return this->mLog.WaitFor(1, "joinable will join.\n"); }
    void ExpectAllClosed() {
        EXPECT_TRUE(this->mPeer.SeesEnd());
        EXPECT_TRUE(this->mSinkPeer.SeesEnd());
        RawListener sameNumber(this->mPort);
        EXPECT_EQ(this->mPort, sameNumber.Port());
    }
};

TYPED_TEST_SUITE(TcpStopTest, Sides, SideNames);

TYPED_TEST(TcpStopTest, WithoutAnyDirectionThereIsNothingToJoin) {
    this->Stop();
    EXPECT_FALSE(this->mLog.Has(1, "joinable will join.\n"));
}

TYPED_TEST(TcpStopTest, WhileThePeerIsWaitedFor) {
    ASSERT_EQ(0, this->CreateReceiving());
    EXPECT_TRUE(this->mLog.WaitFor(1, "wait for connections\n"));
    this->Stop();
    EXPECT_TRUE(this->mLog.Has(1, "joinable will join.\n"));
    EXPECT_TRUE(this->mLog.Has(2, TypeParam::EXIT)) << this->mLog.Dump();
    EXPECT_EQ(0, SystemCallCount(SystemCall::SELECT));
}

TYPED_TEST(TcpStopTest, WhileSelecting) {
    this->Connect();
    this->Stop();
    EXPECT_TRUE(this->mLog.Has(2, TypeParam::EXIT)) << this->mLog.Dump();
    EXPECT_FALSE(this->mTransport->IsRunning());
    EXPECT_FALSE(this->mTransport->IsBroken());
    this->ExpectAllClosed();
}

TYPED_TEST(TcpStopTest, WhileAConnectionIsTakenOver) {
    ASSERT_EQ(0, this->CreateReceiving());
    std::atomic<bool> held{false};
    BeforeSystemCall(SystemCall::SETSOCKOPT, [&] {
        held = true;
        EXPECT_TRUE(this->StopIsJoining());
    });
    this->mPeer = RawConnection::To(this->mPort);
    EXPECT_TRUE(Eventually([&held] { return held.load(); }));
    this->Stop();
    EXPECT_TRUE(this->mLog.Has(2, TypeParam::EXIT)) << this->mLog.Dump();
    EXPECT_TRUE(this->mPeer.SeesEnd());
    EXPECT_EQ(0, SystemCallCount(SystemCall::SELECT));
}

TYPED_TEST(TcpStopTest, WhileTheReadWaits) {
    this->Connect();
    this->mPeer.Send(this->mSide.Frame("payload"));
    EXPECT_TRUE(Eventually([] { return ReadsBegun() == 2; }));
    this->Stop();
    EXPECT_TRUE(this->mLog.Has(2, TypeParam::EXIT)) << this->mLog.Dump();
    EXPECT_FALSE(this->mTransport->IsBroken());
    this->ExpectAllClosed();
}

TYPED_TEST(TcpStopTest, WhileReadsWouldBlock) {
    this->Connect();
    FailSystemCall(SystemCall::READ, EAGAIN, 300);
    this->mPeer.Send("x");
    this->Stop();
    this->ExpectAllClosed();
}

TYPED_TEST(TcpStopTest, InACallbackItWaitsForTheCallbacksEnd) {
    Gate entered;
    Gate leave;
    std::atomic<bool> left{false};
    this->mSide.OnDelivery([&] {
        entered.Open();
        leave.Wait();
        left = true;
    });
    this->Connect();
    this->mPeer.Send(this->mSide.Frame("payload"));
    entered.Wait();
    std::future<int> stop =
        std::async(std::launch::async, [this] { return this->mTransport->StopTransports(); });
    EXPECT_TRUE(this->StopIsJoining());
    EXPECT_FALSE(left);
    leave.Open();
    EXPECT_EQ(0, stop.get());
    EXPECT_TRUE(left);
    this->ExpectAllClosed();
}

TYPED_TEST(TcpStopTest, NoCallbackRunsAfterwards) {
    this->Connect();
    this->mPeer.Send(this->mSide.Frame("one"));
    EXPECT_TRUE(this->Delivers({"one"}));
    this->Stop();
    const size_t delivered = this->mSide.Delivered().Count();
    EXPECT_TRUE(this->mPeer.SeesEnd());
    EXPECT_EQ(delivered, this->mSide.Delivered().Count());
}

TYPED_TEST(TcpStopTest, AfterTheThreadHasEnded) {
    this->Connect();
    this->mPeer.Close();
    EXPECT_TRUE(this->ThreadExits());
    this->Stop();
    EXPECT_TRUE(this->mLog.Has(1, "joinable will join.\n"));
    EXPECT_TRUE(this->mSinkPeer.SeesEnd());
}

TYPED_TEST(TcpStopTest, SecondTimeThereIsNothingToJoin) {
    this->Connect();
    this->Stop();
    this->mLog.Clear();
    this->Stop();
    EXPECT_FALSE(this->mLog.Has(1, "joinable will join.\n"));
}

TYPED_TEST(TcpStopTest, SeveralThreadsMayStopAtOnce) {
    this->Connect();
    std::vector<std::thread> stoppers;
    for (int i = 0; i < 4; ++i) {
        stoppers.emplace_back([this] { EXPECT_EQ(0, this->mTransport->StopTransports()); });
    }
    for (std::thread& stopper : stoppers) {
        stopper.join();
    }
    EXPECT_EQ(1, this->mLog.Count(1, "joinable will join.\n"));
    this->ExpectAllClosed();
}

TYPED_TEST(TcpStopTest, OnItsOwnReceiveThreadDoesNotWaitForItself) {
    this->mSide.OnDelivery([this] { EXPECT_EQ(0, this->mTransport->StopTransports()); });
    this->Connect();
    this->mPeer.Send(this->mSide.Frame("payload"));
    EXPECT_TRUE(this->ThreadExits());
    this->ExpectAllClosed();
}

TYPED_TEST(TcpStopTest, TransportCanBeSetUpAgain) {
    for (const char* payload : {"first", "second", "third"}) {
        this->Connect();
        this->mPeer.Send(this->mSide.Frame(payload));
        EXPECT_TRUE(this->mLog.Lines().size() > 0);
        EXPECT_TRUE(Eventually([&] {
            const auto items = this->mSide.Delivered().Items();
            return !items.empty() && items.back() == this->mSide.Item(payload);
        }));
        EXPECT_EQ(0, this->Send(payload));
        EXPECT_EQ(payload, this->mSinkPeer.Receive(Bytes(payload).size()));
        this->Stop();
        ResetSystemFaults();
        IgnoreReceiveTimeouts();
    }
}

TYPED_TEST(TcpStopTest, AnswerFromACallbackFindsNoSocketOnceAStopHasBegun) {
    Gate entered;
    int answer = 4711;
    this->mSide.OnDelivery([&] {
        entered.Open();
        EXPECT_TRUE(this->StopIsJoining());
        answer = this->Send("answer");
    });
    this->Connect();
    this->mPeer.Send(this->mSide.Frame("question"));
    entered.Wait();
    this->Stop();
    EXPECT_EQ(-1, answer);
    EXPECT_EQ(0U, this->mWritten);
    EXPECT_TRUE(this->mLog.Has(4, NO_CHANNEL));
}

TYPED_TEST(TcpStopTest, AnswerFromACallbackGoesOut) {
    this->mSide.OnDelivery([this] { EXPECT_EQ(0, this->Send("answer")); });
    this->Connect();
    this->mPeer.Send(this->mSide.Frame("question"));
    EXPECT_EQ("answer", this->mSinkPeer.Receive(6));
    this->Stop();
}

TYPED_TEST(TcpStopTest, SenderInProgressEndsToo) {
    this->Connect();
    Bytes bytes(32000000, 'x');
    std::future<int> sender = std::async(std::launch::async, [this, &bytes] { return this->Send(bytes); });
    EXPECT_TRUE(Eventually([] { return SystemCallCount(SystemCall::SEND) > 1; }));
    this->Stop();
    EXPECT_EQ(0, sender.get());
    EXPECT_GT(bytes.size(), this->mWritten);
    EXPECT_THAT(this->mLog.Texts(4), testing::IsEmpty()) << "it used up its patience with the peer";
    EXPECT_FALSE(this->mTransport->HasSendSocket());
    EXPECT_EQ(-1, this->Send("x"));
}

TYPED_TEST(TcpStopTest, SendersAndStopsMayMeetAnywhere) {
    for (int round = 0; round < 20; ++round) {
        ResetSystemFaults();
        IgnoreReceiveTimeouts();
        this->Connect();
        std::thread sender([this] {
            for (int i = 0; i < 50; ++i) {
                this->Send("payload");
            }
        });
        std::thread peer([this] { this->mPeer.Send(this->mSide.Frame("payload")); });
        peer.join();
        this->Stop();
        sender.join();
    }
}

template <typename Side>
class TcpLifetimeTest : public TcpStopTest<Side> {
protected:
    // Drops the test's reference.
    std::weak_ptr<typename Side::Transport> Drop() {
        const std::weak_ptr<typename Side::Transport> watched = this->mTransport;
        this->mTransport->Pending() = false;
        this->mTransport.reset();
        return watched;
    }
};

TYPED_TEST_SUITE(TcpLifetimeTest, Sides, SideNames);

TYPED_TEST(TcpLifetimeTest, UnusedTransportGoesAtOnce) { EXPECT_TRUE(this->Drop().expired()); }

TYPED_TEST(TcpLifetimeTest, StoppedTransportGoesAtOnce) {
    this->Connect();
    this->Stop();
    EXPECT_TRUE(this->Drop().expired());
}

TYPED_TEST(TcpLifetimeTest, TransportWhoseThreadHasEndedNeedsNoStop) {
    this->Connect();
    this->mPeer.Close();
    EXPECT_TRUE(this->ThreadExits());
    const auto watched = this->Drop();
    EXPECT_TRUE(Eventually([&] { return watched.expired(); }));
    EXPECT_TRUE(this->mSinkPeer.SeesEnd());
}

TYPED_TEST(TcpLifetimeTest, TransportThatWasNotStoppedLivesUntilItsPeerLeaves) {
    this->Connect();
    const auto watched = this->Drop();
    this->mPeer.Send(this->mSide.Frame("payload"));
    EXPECT_TRUE(this->Delivers({"payload"}));
    EXPECT_FALSE(watched.expired());
    this->mPeer.Close();
    EXPECT_TRUE(Eventually([&] { return watched.expired(); }));
    EXPECT_TRUE(this->mLog.Has(2, TypeParam::EXIT));
}

TYPED_TEST(TcpLifetimeTest, CallbackMayDropTheLastReference) {
    std::weak_ptr<typename TypeParam::Transport> watched = this->mTransport;
    this->mSide.OnDelivery([this] { this->Drop(); });
    Gate created;
    BeforeSystemCall(SystemCall::READ, [&created] { created.Wait(); });
    this->Connect();
    created.Open();
    this->mPeer.Send(this->mSide.Frame("payload"));
    this->mPeer.Close();
    EXPECT_TRUE(this->ThreadExits());
    EXPECT_TRUE(Eventually([&] { return watched.expired(); }));
}

TYPED_TEST(TcpLifetimeTest, CallbackMayStopAndDropTheTransport) {
    std::weak_ptr<typename TypeParam::Transport> watched = this->mTransport;
    this->mSide.OnDelivery([this] {
        this->mTransport->StopTransports();
        this->Drop();
    });
    this->Connect();
    this->mPeer.Send(this->mSide.Frame("payload"));
    EXPECT_TRUE(this->ThreadExits());
    EXPECT_TRUE(Eventually([&] { return watched.expired(); }));
    EXPECT_TRUE(this->mPeer.SeesEnd());
}

}  // namespace
}  // namespace lumora_test
