// Many threads call everything at random, with arguments good and bad, both sides in one process: nothing
// hangs, races or ends the process. For a few seconds, or as many as LUMORA_RANDOM_CALLS_SECONDS says.
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "tests/api/api_fixture.h"

namespace lumora_test {
namespace {

constexpr int CLIENT_THREADS = 10;
constexpr int SERVER_THREADS = 5;
constexpr int USUAL_SECONDS = 3;
constexpr int LONGEST_BLOCK = 2000;
constexpr auto PACE = std::chrono::milliseconds(2);
constexpr auto HANG = std::chrono::seconds(120);

std::chrono::seconds Duration() {
    const char* const seconds = std::getenv("LUMORA_RANDOM_CALLS_SECONDS");
    return std::chrono::seconds(seconds != nullptr ? std::atoi(seconds) : USUAL_SECONDS);
}

// Ends the process, with a word, when a test does not come to its end.
class Watchdog {
public:
    Watchdog() : mThread([this] { Run(); }) {}
    ~Watchdog() {
        mEnd.Set();
        mThread.join();
    }
    Watchdog(const Watchdog&) = delete;
    Watchdog& operator=(const Watchdog&) = delete;

private:
    void Run() {
        const auto limit = std::chrono::steady_clock::now() + Duration() + HANG;
        while (!mEnd.IsSet()) {
            if (std::chrono::steady_clock::now() > limit) {
                std::fputs("a call hangs\n", stderr);
                std::abort();
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
    }

    Signal mEnd;
    std::thread mThread;
};

class RandomCallsTest : public ApiTest {
protected:
    // Requests reach the server of this very process.
    FakeDevice ServerOfThisProcess() {
        FakeDevice device;
        device.answer = [this](const Request& request, std::string& reply) {
            if (mPlatform.Resource() == nullptr) {
                return -1;
            }
            if (request.verb == "Put") {
                return mPlatform.Put(request.key, request.value);
            }
            if (request.verb == "Post") {
                return mPlatform.Post(request.key, request.value);
            }
            const Answer answer = mPlatform.Get(request.key, request.value);
            reply = answer.reply;
            return answer.result;
        };
        return device;
    }

    using Random = std::mt19937;
    static int Pick(Random& random, int first, int last) {
        return std::uniform_int_distribution<int>(first, last)(random);
    }

    static bool Rarely(Random& random) { return Pick(random, 1, 50) == 1; }

    // For what ends so much that little else would happen.
    static bool Seldom(Random& random) { return Pick(random, 1, 1000) == 1; }

    // Mostly the text that leads on; sometimes none, an empty one, or one that is longer than any limit.
    static const char* PickText(Random& random, const char* usual) {
        static const std::string tooLong(LUM_MAX_CMD_LENGTH + 1, 'x');
        const char* const texts[] = {nullptr, "", "other", tooLong.c_str()};
        const int kind = Pick(random, 0, 40);
        return kind < 4 ? texts[kind] : usual;
    }
    static int PickClient(Random& random) {
        return Rarely(random) ? Pick(random, -1, LUM_MAX_CLIENTS + 1) : Pick(random, 1, 4);
    }
    static unsigned int PickHandle(Random& random) {
        return static_cast<unsigned int>(Rarely(random) ? Pick(random, 0, 3) : 1);
    }
    // Mostly a short one, sometimes one that is just too long.
    static unsigned int PickLength(Random& random, unsigned int limit) {
        return Rarely(random) ? limit + 1 : static_cast<unsigned int>(Pick(random, 0, LONGEST_BLOCK));
    }
    static const char* PickBlock(Random& random) {
        static const std::string block(LONGEST_BLOCK, 'b');
        return Rarely(random) ? nullptr : block.data();
    }

    static void CallClientSide(Random& random) {
        const int clientID = PickClient(random);
        const unsigned int handle = PickHandle(random);
        unsigned int number = 0;
        unsigned int* const where = Rarely(random) ? nullptr : &number;
        int id = 0;
        char text[LUM_MIN_VERSION_BUFFER_LENGTH];
        LUM_DEVICES_INFO_S found;
        LUM_SUBSCRIBE_SERVICE_S subscription = {};
        SetName(subscription.serviceName, Rarely(random) ? "other" : "face");
        subscription.dataSource = Rarely(random) ? 2 : 0;
        switch (Pick(random, 0, 15)) {
            case 0:
                LUM_InitClient(Rarely(random) ? nullptr : &id, PickText(random, "viewer"));
                break;
            case 1:
                if (Seldom(random)) {
                    LUM_DeInitClient(clientID);
                }
                break;
            case 2:
                LUM_RegisterEvent(clientID, Rarely(random) ? nullptr : OnClientEvent);
                break;
            case 3:
                LUM_GetAiDeviceList(PickText(random, "camera"), Rarely(random) ? nullptr : &found);
                break;
            case 4:
                LUM_CreateAiDevice(clientID, PickText(random, "camera"), where);
                break;
            case 5:
                LUM_RegisterAiDeviceEvent(clientID, handle, Rarely(random) ? nullptr : OnDeviceEvent);
                break;
            case 6:
            case 7:
                LUM_ConnectAiDevice(clientID, handle);
                break;
            case 8:
                LUM_DisconnectAiDevice(clientID, handle);
                break;
            case 9:
                if (Rarely(random)) {
                    LUM_DestoryAiDevice(clientID, handle);
                }
                break;
            case 10:
                LUM_SendCmd(clientID, handle, PickText(random, "SetMode"), PickText(random, "night"));
                break;
            case 11:
                LUM_SendCmd(clientID, handle, "subscribe", reinterpret_cast<const char*>(&subscription));
                break;
            case 12:
            case 13:
                LUM_SendData(clientID, handle, PickBlock(random),
                             PickLength(random, LUM_MAX_CLIENT_DATA_LENGTH), where,
                             PickLength(random, LUM_MAX_CLIENT_TIMEOUT_MS));
                break;
            case 14:
                LUM_GetClientVersion(clientID, Rarely(random) ? nullptr : text, sizeof(text));
                break;
            default:
                LUM_GetServerVersion(clientID, handle, text, Rarely(random) ? 0 : sizeof(text));
                break;
        }
    }

    static LUM_DEVICE_INFO_S PickDevice(Random& random) {
        LUM_DEVICE_INFO_S device = DeviceRecord({"face", "gait"});
        if (Rarely(random)) {
            device.serviceNum = static_cast<unsigned int>(Pick(random, 0, LUM_MAX_SERVICES + 1));
        }
        if (Rarely(random)) {
            device.OnData = nullptr;
        }
        return device;
    }

    static void CallServerSide(Random& random) {
        const LUM_DEVICE_INFO_S device = PickDevice(random);
        unsigned int sent = 0;
        switch (Seldom(random) ? Pick(random, 0, 2) : 3) {
            case 0:
                LUM_DeInitServer();
                [[fallthrough]];
            case 1:
                LUM_InitServer(PickText(random, "camera"));
                [[fallthrough]];
            case 2:
                LUM_RegisterAiDevInfo(Rarely(random) ? nullptr : &device);
                break;
            default:
                LUM_SendDataToClient(PickText(random, "face"), PickBlock(random),
                                     PickLength(random, LUM_MAX_SERVER_DATA_LENGTH),
                                     Rarely(random) ? nullptr : &sent,
                                     PickLength(random, LUM_MAX_SERVER_TIMEOUT_MS));
                break;
        }
    }

    // What the network does of its own accord.
    void HappenOutside(Random& random) {
        std::this_thread::sleep_for(PACE);
        if (mPlatform.Resource() == nullptr) {
            return;
        }
        switch (Rarely(random) ? Pick(random, 0, 3) : Pick(random, 4, 6)) {
            case 0:
                mPlatform.SendEvent(2, 1, "127.0.0.1", 5683, "camera");
                break;
            case 1:
                mPlatform.Put("StopTransport");
                break;
            case 2:
                mPlatform.Post("Destroy", std::to_string(Pick(random, 0, 4)));
                break;
            case 3:
                mPlatform.Post("Command", R"({"ClientID":1,"cmd":"unsubscribe","param":"face"})");
                break;
            case 4:
                mPlatform.SendEvent(1, 1, "127.0.0.1", 5683, "camera");
                break;
            case 5:
                mPlatform.Get("TransStatus");
                break;
            default:
                mPlatform.Post("Command", R"({"ClientID":1,"cmd":"SetMode","param":"day"})");
                break;
        }
    }

    template <typename Step>
    std::thread Repeat(unsigned int seed, Step step) {
        return std::thread([this, seed, step] {
            Random random(seed);
            while (std::chrono::steady_clock::now() < mEnd) {
                step(random);
                ++mSteps;
            }
        });
    }

    const std::chrono::steady_clock::time_point mEnd = std::chrono::steady_clock::now() + Duration();
    std::atomic<int> mSteps{0};
};

TEST_F(RandomCallsTest, NothingHangsOrBreaks) {
    const Watchdog watchdog;
    std::atomic<int> answers{0};
    std::atomic<int> refusals{0};
    std::atomic<int> events{0};
    Reactions reactions;
    reactions.data = [&](int, const std::string& data) {
        unsigned int sent = 0;
        LUM_SendDataToClient("face", data.data(), static_cast<unsigned int>(data.size()), &sent, 0);
        ++answers;
    };
    reactions.command = [&](const std::string&, const std::string&) {
        refusals += LUM_RegisterAiDevInfo(nullptr) == -1 ? 1 : 0;
    };
    reactions.deviceEvent = [&](const LUM_DEVICE_EVENT_S&) { ++events; };
    React(reactions);
    mPlatform.devices = {ServerOfThisProcess()};
    std::vector<std::thread> threads;
    unsigned int seed = 1;
    for (int i = 0; i < CLIENT_THREADS; ++i) {
        threads.push_back(Repeat(seed++, [](Random& random) { CallClientSide(random); }));
    }
    for (int i = 0; i < SERVER_THREADS; ++i) {
        threads.push_back(Repeat(seed++, [](Random& random) { CallServerSide(random); }));
    }
    threads.push_back(Repeat(seed++, [this](Random& random) {
        HappenOutside(random);
        mLog.Clear();
    }));
    for (std::thread& thread : threads) {
        thread.join();
    }
    RecordProperty("steps", mSteps);
    std::printf("%d steps, %d blocks answered, %d commands, %d device events\n", mSteps.load(),
                answers.load(), refusals.load(), events.load());
    EXPECT_GT(mSteps, 0);
}

}  // namespace
}  // namespace lumora_test
