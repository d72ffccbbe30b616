// Descriptors, threads and heap: many connections and subscriptions leave nothing over, and a call that finds
// no descriptor fails and leaves nothing over either.
#include <fcntl.h>
#include <malloc.h>
#include <sys/resource.h>

#include <cerrno>
#include <filesystem>
#include <iterator>

#include "tests/api/api_fixture.h"
#include "tests/support/eventually.h"
#include "tests/support/system_faults.h"

namespace lumora_test {
namespace {

// What a call needs at most is far below it.
constexpr rlim_t MANY_DESCRIPTORS = 64;

std::size_t EntriesOf(const char* folder) {
    const std::filesystem::directory_iterator entries(folder);
    return static_cast<std::size_t>(std::distance(begin(entries), end(entries)));
}

// The fakes remember what they were called for. Under sanitizers nothing of the heap is known.
constexpr std::size_t HEAP_SLACK = 1024 * 1024;

struct Holdings {
    std::size_t descriptors = EntriesOf("/proc/self/fd");
    std::size_t threads = EntriesOf("/proc/self/task");
    std::size_t heap = mallinfo2().uordblks;

    bool AreThoseOf(const Holdings& before) const {
        return descriptors == before.descriptors && threads == before.threads;
    }
};

// While one lives, the process can open so many descriptors more.
class DescriptorLimit {
public:
    explicit DescriptorLimit(rlim_t more) {
        getrlimit(RLIMIT_NOFILE, &mBefore);
        rlimit limit = mBefore;
        limit.rlim_cur = LowestFree() + more;
        setrlimit(RLIMIT_NOFILE, &limit);
    }
    ~DescriptorLimit() { setrlimit(RLIMIT_NOFILE, &mBefore); }
    DescriptorLimit(const DescriptorLimit&) = delete;
    DescriptorLimit& operator=(const DescriptorLimit&) = delete;

private:
    static rlim_t LowestFree() {
        rlim_t number = 0;
        while (fcntl(static_cast<int>(number), F_GETFD) >= 0) {
            ++number;
        }
        return number;
    }

    rlimit mBefore = {};
};

class ResourceUseTest : public ApiTest {
protected:
    // Calls with no descriptor left, with one, with two ... until that is enough. Each time everything is set
    // up anew before, and nothing may be left over behind.
    void WithoutDescriptors(const std::function<void()>& setUp, const std::function<int()>& call,
                            const std::function<void()>& takeDown) {
#ifdef __SANITIZE_ADDRESS__
        GTEST_SKIP()
            << "the undefined-behaviour sanitizer that comes with it needs descriptors for its checks";
#endif
        setUp();
        EXPECT_EQ(0, call());
        takeDown();
        const Holdings before;
        rlim_t more = 0;
        for (int result = -1; result != 0 && more < MANY_DESCRIPTORS; ++more) {
            setUp();
            {
                const DescriptorLimit limit(more);
                result = call();
            }
            takeDown();
            SCOPED_TRACE(more);
            ExpectAsBefore(before);
        }
        EXPECT_GT(more, 1U) << "nothing was needed";
        EXPECT_LT(more, MANY_DESCRIPTORS);
    }

    void ExpectAsBefore(const Holdings& before) {
        const bool same = Eventually([&] { return Holdings().AreThoseOf(before); });
        const Holdings now;
        EXPECT_TRUE(same) << now.descriptors << " descriptors, were " << before.descriptors << ", and "
                          << now.threads << " threads, were " << before.threads << "\n"
                          << mLog.Dump();
    }

    void CloseAll() {
        mDevice.Close();
        mToServer.Close();
        mFromServer.Close();
        mDeviceListener.reset();
        mClientListener.reset();
    }
};

TEST_F(ResourceUseTest, ConnectingFailsWithoutDescriptors) {
    WithoutDescriptors(
        [this] {
            ASSERT_EQ(1, InitClient());
            ASSERT_EQ(1U, FindCamera(1));
            mDeviceListener = std::make_unique<RawListener>(DEVICE_PORT);
        },
        [] { return LUM_ConnectAiDevice(1, 1); },
        [this] {
            EXPECT_EQ(0, LUM_DeInitClient(1));
            CloseAll();
        });
    BeConnectedClient();
}

TEST_F(ResourceUseTest, SetupFailsWithoutDescriptors) {
    WithoutDescriptors(
        [this] {
            InitServer();
            Register();
            mClientListener = std::make_unique<RawListener>(CLIENT_PORT);
        },
        [this] {
            return mPlatform
                .Get(".sys.mediaservice.setup", R"({"p":2,"ep":{"addr":"127.0.0.1","port":6666}})")
                .result;
        },
        [this] {
            EXPECT_EQ(0, LUM_DeInitServer());
            CloseAll();
        });
    BeServingDevice();
}

TEST_F(ResourceUseTest, ConnectionThatCannotBeAcceptedIsReplacedByTheNext) {
    BeServingDevice();
    for (int round = 1; round <= 2; ++round) {
        mLog.Clear();
        FailSystemCall(SystemCall::ACCEPT4, EMFILE);
        AskForChannel();
        mFromServer = mClientListener->Accept();
        EXPECT_TRUE(mLog.WaitFor(4, "WaitForConnect failed!\n")) << mLog.Dump();
        OpenChannel();
        unsigned int sent = 0;
        EXPECT_EQ(0, LUM_SendDataToClient("face", "x", 1, &sent, 0));
        EXPECT_EQ(1U, sent);
    }
}

TEST_F(ResourceUseTest, ThousandLivesOfAConnectedClientLeaveNothing) {
    const auto live = [this] {
        BeConnectedClient();
        mFromServer = RawConnection::To(CLIENT_PORT);
        unsigned int sent = 0;
        ASSERT_EQ(0, LUM_SendData(1, 1, "x", 1, &sent, 0)) << mLog.Dump();
        ASSERT_EQ(0, LUM_DeInitClient(1)) << mLog.Dump();
        CloseAll();
        mLog.Clear();
        mPlatform.ClearRequests();
    };
    for (int warmUp = 0; warmUp < 20; ++warmUp) {
        live();
    }
    const Holdings before;
    for (int life = 0; life < 1000; ++life) {
        ASSERT_NO_FATAL_FAILURE(live());
    }
    ExpectAsBefore(before);
    EXPECT_LE(mallinfo2().uordblks, before.heap + HEAP_SLACK);
}

TEST_F(ResourceUseTest, TenThousandSubscriptionsAndCancellationsLeaveNothing) {
    InitServer();
    Register();
    Subscribe(3, "face");
    const auto subscribeAndCancel = [this](int clientID) {
        Subscribe(clientID, "face");
        ASSERT_EQ(0, mPlatform.Post("Command", R"({"ClientID":)" + std::to_string(clientID) +
                                                   R"(,"cmd":"unsubscribe","param":"face"})"));
        mLog.Clear();
    };
    subscribeAndCancel(4);
    const Holdings before;
    for (int time = 0; time < 10000; ++time) {
        ASSERT_NO_FATAL_FAILURE(subscribeAndCancel(4 + time % 200));
    }
    ExpectAsBefore(before);
    EXPECT_LE(mallinfo2().uordblks, before.heap + HEAP_SLACK);
    OpenChannel();
    unsigned int sent = 0;
    EXPECT_EQ(0, LUM_SendDataToClient("face", "x", 1, &sent, 0));
    EXPECT_EQ(ServerFrameBytes("\x03", "face", "x"), mFromServer.Receive(13));
}

TEST_F(ResourceUseTest, TwentyClientsOfOneProcessAllGetTheirData) {
    std::vector<int> told;
    Reactions reactions;
    reactions.deviceEvent = [&](const LUM_DEVICE_EVENT_S& event) { told.push_back(event.clientID); };
    React(reactions);
    BeConnectedClient();
    Bytes everyClient;
    std::vector<int> inOrder;
    for (int clientID = 1; clientID <= LUM_MAX_CLIENTS; ++clientID) {
        ASSERT_EQ(clientID, clientID == 1 ? 1 : InitClient());
        ASSERT_EQ(0, LUM_RegisterAiDeviceEvent(clientID, 1, OnDeviceEvent));
        ASSERT_EQ(0, LUM_ConnectAiDevice(clientID, 1)) << mLog.Dump();
        everyClient += static_cast<char>(clientID);
        inOrder.push_back(clientID);
    }
    mFromServer = RawConnection::To(CLIENT_PORT);
    mFromServer.Send(ServerFrameBytes(everyClient, "face", "for all"));
    // The end of the connection has been seen when the frame before it has been delivered.
    mFromServer.Close();
    ASSERT_TRUE(Eventually([] { return LUM_ConnectAiDevice(1, 1) == -1; }));
    EXPECT_EQ(inOrder, told);
}

TEST_F(ResourceUseTest, EightServicesHaveTwentySubscribersEach) {
    const Texts services = {"one", "two", "three", "four", "five", "six", "seven", "eight"};
    InitServer();
    Register(services);
    Bytes everyClient;
    for (int clientID = 1; clientID <= LUM_MAX_CLIENTS; ++clientID) {
        for (const std::string& service : services) {
            Subscribe(clientID, service);
        }
        everyClient += static_cast<char>(clientID);
    }
    OpenChannel();
    for (const std::string& service : services) {
        unsigned int sent = 0;
        ASSERT_EQ(0, LUM_SendDataToClient(service.c_str(), "data", 4, &sent, 0)) << mLog.Dump();
        const Bytes frame = ServerFrameBytes(everyClient, service, "data");
        EXPECT_EQ(frame, mFromServer.Receive(frame.size()));
    }
}

}  // namespace
}  // namespace lumora_test
