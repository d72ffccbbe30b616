// Many threads call everything at random, both sides in one process: nothing hangs, races or ends the
// process.
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

constexpr int CLIENT_THREADS = 3;
constexpr int SERVER_THREADS = 2;
constexpr auto DURATION = std::chrono::seconds(3);
constexpr auto PACE = std::chrono::milliseconds(2);
constexpr auto HANG = std::chrono::seconds(120);

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
        const auto limit = std::chrono::steady_clock::now() + HANG;
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

    // For what ends or begins so much that little else would happen.
    static bool Rarely(Random& random) { return Pick(random, 1, 50) == 1; }

    static void CallClientSide(Random& random) {
        const int clientID = Pick(random, 0, 4);
        const auto handle = static_cast<unsigned int>(Pick(random, 1, 2));
        unsigned int number = 0;
        int id = 0;
        char text[64];
        LUM_DEVICES_INFO_S found;
        LUM_SUBSCRIBE_SERVICE_S subscription = {};
        SetName(subscription.serviceName, "face");
        switch (Pick(random, 0, 15)) {
            case 0:
                LUM_InitClient(&id, "viewer");
                break;
            case 1:
                if (Rarely(random)) {
                    LUM_DeInitClient(clientID);
                }
                break;
            case 2:
                LUM_RegisterEvent(clientID, OnClientEvent);
                break;
            case 3:
                LUM_GetAiDeviceList("camera", &found);
                break;
            case 4:
                LUM_CreateAiDevice(clientID, "camera", &number);
                break;
            case 5:
                LUM_RegisterAiDeviceEvent(clientID, handle, OnDeviceEvent);
                break;
            case 6:
            case 7:
                LUM_ConnectAiDevice(clientID, handle);
                break;
            case 8:
                LUM_DisconnectAiDevice(clientID, handle);
                break;
            case 9:
                LUM_DestoryAiDevice(clientID, handle);
                break;
            case 10:
                LUM_SendCmd(clientID, handle, "SetMode", "night");
                break;
            case 11:
                LUM_SendCmd(clientID, handle, "subscribe", reinterpret_cast<const char*>(&subscription));
                break;
            case 12:
            case 13:
                LUM_SendData(clientID, handle, text, sizeof(text), &number, 0);
                break;
            case 14:
                LUM_GetClientVersion(clientID, text, sizeof(text));
                break;
            default:
                LUM_GetServerVersion(clientID, handle, text, sizeof(text));
                break;
        }
    }

    static void CallServerSide(Random& random) {
        const LUM_DEVICE_INFO_S device = DeviceRecord({"face", "gait"});
        unsigned int sent = 0;
        switch (Rarely(random) ? Pick(random, 0, 2) : 3) {
            case 0:
                LUM_DeInitServer();
                [[fallthrough]];
            case 1:
                LUM_InitServer("camera");
                [[fallthrough]];
            case 2:
                LUM_RegisterAiDevInfo(&device);
                break;
            default:
                LUM_SendDataToClient("face", "data", 4, &sent, 0);
                break;
        }
    }

    // What the network does of its own accord.
    void HappenOutside(Random& random) {
        std::this_thread::sleep_for(PACE);
        if (mPlatform.Resource() == nullptr) {
            return;
        }
        switch (Pick(random, 0, 5)) {
            case 0:
                mPlatform.SendEvent(2, 1, "127.0.0.1", 5683, "camera");
                break;
            case 1:
                mPlatform.SendEvent(1, 1, "127.0.0.1", 5683, "camera");
                break;
            case 2:
                mPlatform.Put("StopTransport");
                break;
            case 3:
                mPlatform.Post("Destroy", std::to_string(Pick(random, 0, 4)));
                break;
            case 4:
                mPlatform.Get("TransStatus");
                break;
            default:
                mPlatform.Post("Command", R"({"ClientID":1,"cmd":"unsubscribe","param":"face"})");
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

    const std::chrono::steady_clock::time_point mEnd = std::chrono::steady_clock::now() + DURATION;
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
