// Calls that meet the network at a bad moment: a connect under a timer's signals, a send after the client
// closed in order, a stop while a request still opens the channel.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "tests/api/api_fixture.h"
#include "tests/support/eventually.h"

namespace lumora_test {
namespace {

using std::chrono::milliseconds;
using testing::IsEmpty;

const char* const SETUP_KEY = ".sys.mediaservice.setup";
const char* const SETUP = R"({"p":2,"ep":{"addr":"127.0.0.1","port":6666}})";

sockaddr_in Loopback(int port) {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<in_port_t>(port));
    return address;
}

bool Connects(int fd, int port) {
    const sockaddr_in address = Loopback(port);
    return connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
}

bool IsListening(int port) {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const bool listening = Connects(fd, port);
    close(fd);
    return listening;
}

// Listens with a full queue: a connect waits, and succeeds with the first repeated SYN after Drain.
class FullListener {
public:
    explicit FullListener(int port) : mFd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        const sockaddr_in address = Loopback(port);
        const int yes = 1;
        setsockopt(mFd, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof(yes));
        EXPECT_EQ(0, bind(mFd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)));
        EXPECT_EQ(0, listen(mFd, 0));
        for (int connection = 0; connection < 3; ++connection) {
            mFillers.push_back(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
            Connects(mFillers.back(), port);
        }
    }
    ~FullListener() {
        Drain();
        close(mFd);
    }
    FullListener(const FullListener&) = delete;
    FullListener& operator=(const FullListener&) = delete;

    void Drain() {
        for (const int fd : mFillers) {
            close(fd);
        }
        mFillers.clear();
        EXPECT_EQ(0, listen(mFd, 16));
    }

private:
    const int mFd;
    std::vector<int> mFillers;
};

std::atomic<int> g_timerSignals{0};

void OnTimer(int) { ++g_timerSignals; }

// Interrupts the first thread of this process each millisecond: the kernel prefers it.
class TimerSignals {
public:
    TimerSignals() {
        struct sigaction action = {};
        action.sa_handler = OnTimer;
        action.sa_flags = SA_RESTART;
        sigaction(SIGALRM, &action, nullptr);
        const itimerval period = {{0, 1000}, {0, 1000}};
        setitimer(ITIMER_REAL, &period, nullptr);
    }
    ~TimerSignals() {
        const itimerval none = {};
        setitimer(ITIMER_REAL, &none, nullptr);
        // The handler stays: a signal may still be on its way, and its default action ends the process.
    }
    TimerSignals(const TimerSignals&) = delete;
    TimerSignals& operator=(const TimerSignals&) = delete;

private:
};

class CallsTest : public ApiTest {
protected:
    int Send(unsigned int& sent) {
        sent = 4711;
        return LUM_SendDataToClient("face", "block", 5, &sent, 1000);
    }
    // The device's receive thread has seen that the client closed its half.
    bool WaitForClosedHalf() { return mLog.WaitFor(2, "The server reveived thread exit.\n"); }
};

// ---- Connecting ----

TEST_F(CallsTest, ConnectOutlastsATimersSignals) {
    ASSERT_EQ(1, InitClient());
    ASSERT_EQ(1U, FindCamera(1));
    FullListener device(DEVICE_PORT);
    g_timerSignals = 0;
    std::thread later([&] {
        EXPECT_TRUE(mLog.WaitFor(1, "addr: 127.0.0.1\n"));  // logged right before the call of connect
        const int before = g_timerSignals;
        EXPECT_TRUE(Eventually([=] { return g_timerSignals > before + 20; }));
        device.Drain();
    });
    {
        const TimerSignals signals;
        EXPECT_EQ(0, LUM_ConnectAiDevice(1, 1)) << mLog.Dump();
    }
    later.join();
}

// ---- After the client closed ----

TEST_F(CallsTest, SendAfterAnOrderlyCloseWritesNothing) {
    BeServingDevice();
    unsigned int sent = 0;
    ASSERT_EQ(0, Send(sent)) << mLog.Dump();
    ASSERT_EQ(5U, sent);
    mToServer.Close();
    ASSERT_TRUE(WaitForClosedHalf());
    for (int call = 1; call <= 3; ++call) {
        EXPECT_EQ(0, Send(sent)) << "call " << call;
        EXPECT_EQ(0U, sent) << "call " << call;
    }
    EXPECT_THAT(mLog.Texts(4), IsEmpty());
}

// Whatever moment the close comes at: while the device streams, a send is whole, cut short or writes nothing.
TEST_F(CallsTest, StreamMeetsAnOrderlyClose) {
    BeServingDevice();
    const std::string block(100000, 'b');
    std::atomic<std::size_t> received{0};
    std::thread reader([&] {
        for (Bytes some; !(some = mFromServer.ReceiveSome(milliseconds(2000))).empty();) {
            received += some.size();
        }
    });
    std::thread closer([&] {
        EXPECT_TRUE(Eventually([&] { return received > 10 * block.size(); }));
        mToServer.Close();
    });
    unsigned int sent = 4711;
    EXPECT_TRUE(Eventually([&] {
        EXPECT_EQ(0, LUM_SendDataToClient("face", block.data(), 100000, &sent, 1000)) << mLog.Dump();
        return sent == 0 || testing::Test::HasFailure();
    }));
    closer.join();
    ASSERT_TRUE(WaitForClosedHalf());
    EXPECT_THAT(mLog.Texts(4), IsEmpty());
    EndServer();
    reader.join();
}

TEST_F(CallsTest, SendAfterAResetFails) {
    BeServingDevice();
    mToServer.Reset();
    ASSERT_TRUE(WaitForClosedHalf());
    unsigned int sent = 0;
    EXPECT_EQ(-1, Send(sent));
    EXPECT_EQ(0U, sent);
    EXPECT_TRUE(mLog.Has(4, "No transport channel created, please connect first.\n"));
}

// ---- Ending while a channel is opened ----

class OpeningTest : public CallsTest {
protected:
    void SetUp() override {
        Reactions reactions;
        reactions.command = [this](const std::string&, const std::string&) {
            mInCommand.Set();
            mCommandMayEnd.Wait();
        };
        reactions.data = [this](int, const std::string&) { ++mDataAfterEnd; };
        React(reactions);
        InitServer();
        Register();
    }
    void ExpectGoneAndNextServerWorks() {
        EXPECT_FALSE(IsListening(DEVICE_PORT)) << mLog.Dump();
        EXPECT_EQ(0, mDataAfterEnd);
        mClientListener.reset();
        React(Reactions());
        ASSERT_NO_FATAL_FAILURE(BeServingDevice());
        unsigned int sent = 0;
        EXPECT_EQ(0, Send(sent)) << mLog.Dump();
        EXPECT_EQ(5U, sent);
    }

    Signal mInCommand;
    Signal mCommandMayEnd;
    std::atomic<int> mDataAfterEnd{0};
};

// OnCommand keeps the end of the server waiting, and a request behind it. The platform's Exit waits for no
// request.
TEST_F(OpeningTest, RequestBehindTheEndOpensNoChannel) {
    mClientListener = std::make_unique<RawListener>(CLIENT_PORT);
    std::thread command([this] { mPlatform.Post("Command", R"({"ClientID":3,"cmd":"long","param":""})"); });
    mInCommand.Wait();
    std::thread end([] { EXPECT_EQ(0, LUM_DeInitServer()); });
    ASSERT_TRUE(mLog.WaitFor(2, "Clear coap resourse success.\n"));
    std::thread request([this] { mPlatform.Get(SETUP_KEY, SETUP); });
    // Both wait for the same lock, and a waiting request shows in nothing. The end came first and so gets it
    // first.
    std::this_thread::sleep_for(milliseconds(50));
    mCommandMayEnd.Set();
    command.join();
    end.join();
    request.join();
    ExpectGoneAndNextServerWorks();
}

// The request is connecting back when the server ends.
TEST_F(OpeningTest, RequestThatConnectsBackOpensNoChannel) {
    auto client = std::make_unique<FullListener>(CLIENT_PORT);
    std::thread request([this] { mPlatform.Get(SETUP_KEY, SETUP); });
    ASSERT_TRUE(mLog.WaitFor(1, "addr: 127.0.0.1\n"));
    std::thread end([] { EXPECT_EQ(0, LUM_DeInitServer()); });
    ASSERT_TRUE(mLog.WaitFor(2, "Clear coap resourse success.\n"));
    client->Drain();
    end.join();
    request.join();
    client.reset();
    ExpectGoneAndNextServerWorks();
}

}  // namespace
}  // namespace lumora_test
