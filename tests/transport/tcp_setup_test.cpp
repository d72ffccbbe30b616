// Setting up either direction of either side's transport.
#include <fcntl.h>
#include <pthread.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>

#include "tests/support/fake_securec.h"
#include "tests/transport/tcp_fixture.h"

namespace lumora_test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

template <typename Side>
class TcpSetupTest : public TcpFixture<Side> {
protected:
    void ExpectReceivingFails(const std::string& message, int error) {
        EXPECT_EQ(-1, this->CreateReceiving());
        ExpectFailed(message, error);
    }
    void ExpectSendingFails(const std::string& message, int error) {
        EXPECT_EQ(-1, this->CreateSending());
        ExpectFailed(message, error);
        EXPECT_FALSE(this->mTransport->HasSendSocket());
    }

    // Nothing is held any more, and the transport can be set up once the cause has gone.
    void ExpectUsable() {
        EXPECT_EQ(SocketsAtStart(), OpenSockets());
        ForgetAllFaults();
        this->Connect();
        this->mPeer.Send(this->mSide.Frame("payload"));
        EXPECT_TRUE(this->Delivers({"payload"}));
        EXPECT_EQ(0, this->Send("answer"));
        EXPECT_EQ("answer", this->mSinkPeer.Receive(6));
    }

    std::set<int> SocketsAtStart() const { return mSocketsAtStart; }

private:
    void ExpectFailed(const std::string& message, int error) {
        EXPECT_THAT(this->mLog.Texts(4),
                    ElementsAre(message, "SetupSocket error: " + std::to_string(error) + "\n"));
        EXPECT_EQ(SocketsAtStart(), OpenSockets());
    }

    const std::set<int> mSocketsAtStart = OpenSockets();
};

TYPED_TEST_SUITE(TcpSetupTest, Sides, SideNames);

TYPED_TEST(TcpSetupTest, DirectionsOfTheOtherSideAreIgnored) {
    EXPECT_EQ(0, this->Create(TypeParam::OTHER_RECEIVE, "127.0.0.1", this->mPort));
    EXPECT_EQ(0, this->Create(TypeParam::OTHER_SEND, "127.0.0.1", this->mSink.Port()));
    EXPECT_EQ(0, this->Create(static_cast<lumoraAiModule::TransType>(0), "", 0));
    EXPECT_EQ(0, this->Create(static_cast<lumoraAiModule::TransType>(5), "", 0));
    EXPECT_THAT(this->mLog.Lines(), IsEmpty());
    EXPECT_EQ(this->SocketsAtStart(), OpenSockets());
}

TYPED_TEST(TcpSetupTest, ReceivingFailsWithoutASocket) {
    FailSystemCall(SystemCall::SOCKET, EMFILE);
    this->ExpectReceivingFails("create socket error: Too many open files(errno: 24)\n", EMFILE);
    this->ExpectUsable();
}

TYPED_TEST(TcpSetupTest, ReceivingFailsWithoutAnAddress) {
    FailBoundedCall(Bounded::MEMSET);
    EXPECT_EQ(-1, this->CreateReceiving());
    EXPECT_THAT(this->mLog.Texts(4), ElementsAre("memset_s failed\n", "SetupSocket error: 0\n"));
    EXPECT_TRUE(
        this->mLog.Has(1, "set non-blocking socket Succ, port = : " + std::to_string(this->mPort) + "\n"));
}

TYPED_TEST(TcpSetupTest, ReceivingFailsWithoutAReusableAddress) {
    FailSystemCall(SystemCall::SETSOCKOPT, EINVAL);
    this->ExpectReceivingFails("setsockopt error :Invalid argument(errno:22)\n", 0);
    EXPECT_EQ(0, SystemCallCount(SystemCall::BIND));
    this->ExpectUsable();
}

TYPED_TEST(TcpSetupTest, ReceivingFailsWithoutMemoryForRests) {
    FailLargeAllocation(TypeParam::REASSEMBLY_SIZE);
    EXPECT_EQ(-1, this->CreateReceiving());
    EXPECT_THAT(this->mLog.Texts(4), ElementsAre("new memory failed, low memory!\n"));
    this->Stop();
    this->ExpectUsable();
}

// No address space has so much left in one piece.
constexpr size_t MORE_THAN_ANY_STACK = sizeof(size_t) > 4 ? SIZE_MAX >> 17 : SIZE_MAX / 16 * 15;

TYPED_TEST(TcpSetupTest, ReceivingFailsWithoutAThread) {
    pthread_attr_t before;
    ASSERT_EQ(0, pthread_getattr_default_np(&before));
    pthread_attr_t huge;
    pthread_attr_init(&huge);
    pthread_attr_setstacksize(&huge, MORE_THAN_ANY_STACK);
    ASSERT_EQ(0, pthread_setattr_default_np(&huge));
    const int ret = this->CreateReceiving();
    pthread_setattr_default_np(&before);
    EXPECT_EQ(-1, ret);
    EXPECT_FALSE(this->mTransport->IsRunning());
    EXPECT_EQ(1U, this->mLog.Texts(4).size()) << this->mLog.Dump();
    this->Stop();
    this->ExpectUsable();
}

TYPED_TEST(TcpSetupTest, PortIsFreeAgainAfterAFailedListen) {
    FailSystemCall(SystemCall::LISTEN, EADDRINUSE);
    EXPECT_EQ(-1, this->CreateReceiving());
    EXPECT_TRUE(this->mLog.Has(4, "SetupSocket error: 98\n")) << this->mLog.Dump();
    this->ExpectUsable();
}

TYPED_TEST(TcpSetupTest, ReceivingCanBeSetUpAgain) {
    this->Receive();
    ASSERT_NO_FATAL_FAILURE(this->Receive());
    this->mPeer.Send(this->mSide.Frame("again"));
    EXPECT_TRUE(this->Delivers({"again"}));
}

TYPED_TEST(TcpSetupTest, SendingLogsTheAddressThatItConnectsTo) {
    this->ConnectSending();
    EXPECT_THAT(this->mLog.Texts(1), ElementsAre("addr: 127.0.0.1\n", "set non-blocking socket\n"));
    EXPECT_EQ(2U, this->mLog.Lines().size());
}

TYPED_TEST(TcpSetupTest, SendingFailsWithoutASocket) {
    FailSystemCall(SystemCall::SOCKET, EMFILE);
    this->ExpectSendingFails("create socket error: Too many open files(errno: 24)\n", EMFILE);
    this->ExpectUsable();
}

TYPED_TEST(TcpSetupTest, SendingFailsWithoutAnAddress) {
    FailBoundedCall(Bounded::MEMSET);
    this->ExpectSendingFails("memset_s failed\n", 0);
}

TYPED_TEST(TcpSetupTest, SendingFailsForTextThatIsNoAddress) {
    for (const char* addr : {"300.1.1.1", "", "localhost", "::1"}) {
        this->mLog.Clear();
        EXPECT_EQ(-1, this->Create(TypeParam::SEND, addr, this->mSink.Port()));
        EXPECT_THAT(this->mLog.Texts(4),
                    ElementsAre(std::string("inet_pton error for ") + addr + "\n", "SetupSocket error: 0\n"));
        EXPECT_EQ(this->SocketsAtStart(), OpenSockets());
    }
}

TYPED_TEST(TcpSetupTest, SendingFailsWithoutAListener) {
    EXPECT_EQ(-1, this->Create(TypeParam::SEND, "127.0.0.1", this->mPort));
    EXPECT_THAT(this->mLog.Texts(4),
                ElementsAre("connect error: Connection refused(errno: 111)\n", "SetupSocket error: 111\n"));
    EXPECT_FALSE(this->mLog.Has(1, "set non-blocking socket\n"));
    EXPECT_EQ(-1, this->Send("x"));
    EXPECT_TRUE(this->mLog.Has(4, NO_CHANNEL));
    this->ExpectUsable();
}

TYPED_TEST(TcpSetupTest, ConnectThatTakesTooLongTimesOut) {
    FailSystemCall(SystemCall::CONNECT, EINPROGRESS);
    this->ExpectSendingFails("connect error: Connection timed out(errno: 110)\n", ETIMEDOUT);
}

TYPED_TEST(TcpSetupTest, InterruptedConnectThatDoesNotSucceedFails) {
    FailSystemCall(SystemCall::CONNECT, EINTR);
    this->ExpectSendingFails("connect error: Connection timed out(errno: 110)\n", ETIMEDOUT);
}

TYPED_TEST(TcpSetupTest, ProgramsThatAreStartedInheritNoDescriptor) {
    const std::set<int> before = OpenDescriptors();
    this->Connect();
    std::set<int> ours = OpenDescriptors();
    for (const int fd : before) {
        ours.erase(fd);
    }
    EXPECT_EQ(5U, ours.size());  // listener and two connections, and the other ends of these
    EXPECT_TRUE(
        std::all_of(ours.begin(), ours.end(), [](int fd) { return (fcntl(fd, F_GETFD) & FD_CLOEXEC) != 0; }));
}

TYPED_TEST(TcpSetupTest, OnlyReceivingBlocksAndNotForLong) {
    std::set<int> others = OpenDescriptors();
    this->Connect();
    others.insert({this->mPeer.Fd(), this->mSinkPeer.Fd()});
    std::vector<timeval> limits;
    for (const int fd : OpenDescriptors()) {
        if (others.count(fd) == 0 && (fcntl(fd, F_GETFL) & O_NONBLOCK) == 0) {
            socklen_t size = sizeof(timeval);
            EXPECT_EQ(0, getsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limits.emplace_back(), &size));
        }
    }
    ASSERT_EQ(1U, limits.size());
    EXPECT_EQ(0, limits[0].tv_sec);
    EXPECT_LE(500000, limits[0].tv_usec);
    EXPECT_GE(510000, limits[0].tv_usec);  // the kernel counts in its ticks
}

// 0 stands for "no descriptor".
template <typename Side>
class DescriptorZeroTest : public TcpSetupTest<Side> {
protected:
    DescriptorZeroTest() : mStandardInput(fcntl(0, F_DUPFD_CLOEXEC, 3)) {}
    ~DescriptorZeroTest() override { close(mStandardInput); }

    // The transport moves the one that it gets during action, which leaves 0 free.
    void WithZero(int passBefore, const std::function<void()>& action) {
        GiveDescriptorNumber(0, 1, passBefore);
        action();
        EXPECT_EQ(0U, OpenDescriptors().count(0));
        // accept reserves a number before it looks for a connection, and dup2 does not wait for it.
        while (dup2(mStandardInput, 0) < 0 && errno == EBUSY) {
        }
    }
    void ExpectDataBothWays() {
        this->mPeer.Send(this->mSide.Frame("payload"));
        EXPECT_TRUE(this->Delivers({"payload"}));
        EXPECT_EQ(0, this->Send("answer"));
        EXPECT_EQ("answer", this->mSinkPeer.Receive(6));
    }

private:
    const int mStandardInput;
};

TYPED_TEST_SUITE(DescriptorZeroTest, Sides, SideNames);

TYPED_TEST(DescriptorZeroTest, ListenerIsMovedUp) {
    this->WithZero(0, [this] { ASSERT_EQ(0, this->CreateReceiving()); });
    this->mPeer = RawConnection::To(this->mPort);
    this->ConnectSending();
    this->ExpectDataBothWays();
}

TYPED_TEST(DescriptorZeroTest, ConnectionsAreMovedUp) {
    this->WithZero(1, [this] { this->Receive(); });
    this->WithZero(0, [this] { ASSERT_EQ(0, this->CreateSending()); });
    this->mSinkPeer = this->mSink.Accept();
    this->ExpectDataBothWays();
}

TYPED_TEST(DescriptorZeroTest, MovedDescriptorsAreNotInherited) {
    const std::set<int> before = OpenDescriptors();
    this->WithZero(0, [this] { ASSERT_EQ(0, this->CreateReceiving()); });
    this->WithZero(0, [this] { ASSERT_EQ(0, this->CreateSending()); });
    for (const int fd : OpenDescriptors()) {
        EXPECT_TRUE(before.count(fd) != 0 || (fcntl(fd, F_GETFD) & FD_CLOEXEC) != 0) << fd;
    }
}

// select cannot watch them, and would write behind its set.
template <typename Side>
class HighDescriptorTest : public TcpSetupTest<Side> {
protected:
    HighDescriptorTest() {
        getrlimit(RLIMIT_NOFILE, &mBefore);
        rlimit raised = mBefore;
        raised.rlim_cur = std::max<rlim_t>(raised.rlim_cur, 2000);
        mMayRaise = raised.rlim_cur <= raised.rlim_max && setrlimit(RLIMIT_NOFILE, &raised) == 0;
    }
    ~HighDescriptorTest() override { setrlimit(RLIMIT_NOFILE, &mBefore); }
    void SetUp() override {
        if (!mMayRaise) {
            GTEST_SKIP() << "descriptors are limited to " << mBefore.rlim_max;
        }
    }

    static constexpr char REFUSED[] = "create socket error: Too many open files(errno: 24)\n";

private:
    rlimit mBefore = {};
    bool mMayRaise = false;
};

TYPED_TEST_SUITE(HighDescriptorTest, Sides, SideNames);

TYPED_TEST(HighDescriptorTest, ListenerIsRefused) {
    GiveDescriptorNumber(FD_SETSIZE);
    this->ExpectReceivingFails(this->REFUSED, EMFILE);
    this->ExpectUsable();
}

TYPED_TEST(HighDescriptorTest, SendingIsRefused) {
    GiveDescriptorNumber(FD_SETSIZE + 7);
    this->ExpectSendingFails(this->REFUSED, EMFILE);
    this->ExpectUsable();
}

TYPED_TEST(HighDescriptorTest, AcceptedConnectionIsRefused) {
    GiveDescriptorNumber(FD_SETSIZE, 1, 1);
    ASSERT_EQ(0, this->CreateReceiving());
    this->mPeer = RawConnection::To(this->mPort);
    EXPECT_TRUE(this->mLog.WaitFor(4, "WaitForConnect failed!\n"));
    EXPECT_THAT(this->mLog.Texts(4), ElementsAre("accept socket error: Too many open files(errno: 24)\n",
                                                 "WaitForConnect failed!\n"));
    EXPECT_TRUE(this->mPeer.SeesEnd());
}

TYPED_TEST(HighDescriptorTest, HighestNumberThatFitsIsUsed) {
    GiveDescriptorNumber(FD_SETSIZE - 1, 1, 1);
    ASSERT_NO_FATAL_FAILURE(this->Receive());
    EXPECT_EQ(1U, OpenDescriptors().count(FD_SETSIZE - 1));
    this->mPeer.Send(this->mSide.Frame("payload"));
    EXPECT_TRUE(this->Delivers({"payload"}));
}

}  // namespace
}  // namespace lumora_test
