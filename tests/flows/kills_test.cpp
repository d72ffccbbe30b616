// A device that is killed while blocks pass: its client is told, and goes on with the device that takes its
// place.
#include <gtest/gtest.h>
#include <lumora.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <ostream>
#include <string>
#include <thread>
#include <vector>

#include "flow_blocks.h"
#include "flow_device.h"
#include "stall_meter.h"
#include "tests/end_to_end/process.h"
#include "tests/support/eventually.h"
#include "tests/support/own_network.h"

namespace lumora_test {
namespace {

using std::chrono::milliseconds;

constexpr int KILLED = 128 + SIGKILL;
constexpr std::size_t SIZE = 100000;
constexpr Milliseconds TOLD_WITHIN{1000};
constexpr Milliseconds SEND_LIMIT{500};

constexpr int VARIANTS = 6;

// In all variants together.
int Kills() {
    const char* const kills = std::getenv("LUMORA_FLOW_KILLS");
    return kills != nullptr ? std::atoi(kills) : 24;
}

std::atomic<int> g_blocks{0};
std::atomic<int> g_removals{0};

std::atomic<bool> g_slow{false};

int OnBlock(LUM_DEVICE_EVENT_S event) {
    if (g_slow) {
        std::this_thread::sleep_for(milliseconds(10));
    }
    g_blocks += std::string(event.serviceName) == DOWN_SERVICE ? 1 : 0;
    return 0;
}

int OnClientEvent(int, LUM_EVENT_E) {
    ++g_removals;
    return 0;
}

struct Variant {
    std::string name;
    bool clientStreams;
    bool deviceStreams;
    bool slowly;  // blocks wait in front of a callback that takes its time, and the end of the channel behind
                  // them

    friend void PrintTo(const Variant& variant, std::ostream* out) { *out << variant.name; }
};

class KillTest : public testing::TestWithParam<Variant> {
protected:
    void SetUp() override {
        g_slow = GetParam().slowly;
        ASSERT_EQ(0, LUM_InitClient(&mClient, "flow-client"));
        ASSERT_EQ(0, LUM_RegisterEvent(mClient, OnClientEvent));
    }
    void TearDown() override { EXPECT_EQ(0, LUM_DeInitClient(mClient)); }

    // Each device has a name of its own, so that the late removal of a killed one cannot mean its successor.
    void StartDevice() {
        mName = "device-" + std::to_string(++mDevices);
        mDevice = std::make_unique<Process>(std::vector<std::string>{FLOW_PEER_PROGRAM, "device", mName});
        mDevice->WaitForLine("ready");
    }
    bool Find() const {
        LUM_DEVICES_INFO_S found;
        bool here = false;
        if (LUM_GetAiDeviceList(FLOW_LINK_TYPE, &found) == 0) {
            for (unsigned int i = 0; i < found.devNum; ++i) {
                here = here || mName == found.devInfo[i].devServiceType;
            }
        }
        return here;
    }
    bool Subscribe() const {
        const LUM_SUBSCRIBE_SERVICE_S down = {"down", 0, LUM_TRANSPORT_TCP};
        return LUM_SendCmd(mClient, mHandle, "subscribe", reinterpret_cast<const char*>(&down)) == 0;
    }
    bool Connect() {
        return Find() && LUM_CreateAiDevice(mClient, mName.c_str(), &mHandle) == 0 &&
               LUM_RegisterAiDeviceEvent(mClient, mHandle, OnBlock) == 0 &&
               LUM_ConnectAiDevice(mClient, mHandle) == 0 && Subscribe();
    }
    bool SendsBlock() {
        const std::vector<char>& block = mBlocks.Next();
        unsigned int sent = 0;
        const auto length = static_cast<unsigned int>(block.size());
        const Clock::time_point begin = Clock::now();
        const int result = LUM_SendData(mClient, mHandle, block.data(), length, &sent, 1000);
        if (result == 0 && sent < length && Clock::now() - begin >= SEND_LIMIT) {
            mRanOut = true;
        }
        mWhole += result == 0 && sent == length ? 1 : 0;
        return result == 0 && sent == length;
    }
    // The library knows a handle until it is told of its device's end.
    bool HandleIsKnown() const { return LUM_RegisterAiDeviceEvent(mClient, mHandle, OnBlock) == 0; }

    void LetBlocksPass() {
        const int before = g_blocks;
        if (GetParam().deviceStreams) {
            const std::string start = std::to_string(SIZE) + (GetParam().slowly ? " 0" : " 1");
            ASSERT_EQ(0, LUM_SendCmd(mClient, mHandle, "start", start.c_str()));
            ASSERT_TRUE(Eventually([&] { return g_blocks > before + 3; }));
        }
        if (GetParam().clientStreams) {
            const int whole = mWhole;
            mStreaming = true;
            mStream = std::thread([this] {
                while (mStreaming) {
                    SendsBlock();
                }
            });
            ASSERT_TRUE(Eventually([&] { return mWhole > whole + 3; }));
        }
    }
    void KillDevice() {
        mRanOut = false;
        mDevice->Signal(SIGKILL);
        mKilled = Clock::now();
        EXPECT_EQ(KILLED, mDevice->WaitForEnd());
    }
    void EndStream() {
        mStreaming = false;
        if (mStream.joinable()) {
            mStream.join();
        }
    }

    const StallMeter mStall;
    int mClient = 0;
    unsigned int mHandle = 0;
    int mDevices = 0;
    std::string mName;
    std::unique_ptr<Process> mDevice;
    FlowWriter mBlocks{SIZE};
    std::atomic<bool> mStreaming{false};
    // A send made no progress for so long that the library closed the channel itself: the machine took longer
    // than that to end the device.
    std::atomic<bool> mRanOut{false};
    std::atomic<int> mWhole{0};  // blocks that the client sent
    std::thread mStream;
    Clock::time_point mKilled;
};

TEST_P(KillTest, ClientIsToldAndGoesOn) {
    const int kills = Kills() / VARIANTS;
    int told = 0;
    int late = 0;
    int tooSlow = 0;
    Milliseconds longest{0};
    Milliseconds longestReturn{0};
    for (int kill = 0; kill < kills; ++kill) {
        ASSERT_NO_FATAL_FAILURE(StartDevice());
        const Clock::time_point begin = Clock::now();
        ASSERT_TRUE(Connect()) << "kill " << kill;
        longestReturn = std::max<Milliseconds>(longestReturn, Clock::now() - begin);
        ASSERT_NO_FATAL_FAILURE(LetBlocksPass());
        const int removals = g_removals;
        KillDevice();
        const bool forgotten = Eventually([&] { return !HandleIsKnown(); }, std::chrono::seconds(4));
        const Milliseconds took = Clock::now() - mKilled;
        EndStream();
        // The end of the channel is told without an event. The end of the node is noticed later, and told by
        // one.
        if (forgotten && g_removals == removals) {
            ++told;
            longest = std::max(longest, took);
            late += took > TOLD_WITHIN + 2 * mStall.Longest() ? 1 : 0;
        } else if (mRanOut) {
            ++tooSlow;
        }
        EXPECT_EQ(-1, LUM_ConnectAiDevice(mClient, mHandle)) << "kill " << kill << ": connected to nothing";
        EXPECT_FALSE(SendsBlock());
    }
    std::printf(
        "%s: %d kills, %d told, %.0f ms at most, %d late, %d too slow; connected again in %.0f ms at most; "
        "stall %.0f ms\n",
        GetParam().name.c_str(), kills, told, longest.count(), late, tooSlow, longestReturn.count(),
        mStall.Longest().count());
    EXPECT_EQ(kills, told + tooSlow);
    EXPECT_EQ(0, late);
}

INSTANTIATE_TEST_SUITE_P(Streams, KillTest,
                         testing::Values(Variant{"ClientStreams", true, false, false},
                                         Variant{"DeviceStreams", false, true, false},
                                         Variant{"BothStream", true, true, false},
                                         Variant{"BothStreamAndClientIsSlow", true, true, true},
                                         Variant{"DeviceStreamsAndClientIsSlow", false, true, true},
                                         Variant{"NeitherStreams", false, false, false}),
                         [](const auto& variant) { return variant.param.name; });

}  // namespace
}  // namespace lumora_test

// A key of the test's own, so that all its nodes make private channels.
class KeyFile {
public:
    KeyFile() {
        const int fd = mkstemp(mPath.data());
        constexpr char KEY[] = "flow:5f0c3e5f0c3e5f0c3e5f0c3e5f0c3e5f\n";
        const bool isWritten = fd >= 0 && write(fd, KEY, sizeof(KEY) - 1) == sizeof(KEY) - 1;
        if (!isWritten || close(fd) != 0) {
            std::perror("the key's file");
            std::exit(1);
        }
        setenv("LUMORA_LINK_PSK_FILE", mPath.c_str(), 1);
        setenv("LUMORA_LINK_CHANNEL", "require", 1);
    }
    ~KeyFile() { unlink(mPath.c_str()); }
    KeyFile(const KeyFile&) = delete;
    KeyFile& operator=(const KeyFile&) = delete;

private:
    std::string mPath = "/tmp/lumora-flow-key-XXXXXX";
};

int main(int argc, char** argv) {
    lumora_test::EnterOwnNetwork();
    setenv("LUMORA_LINK_INTERFACE", "lo", 1);
    unsetenv("LUMORA_LINK_PEERS");
    unsetenv("LUMORA_LINK_PORT");
    unsetenv("LUMORA_LINK_PSK_FILE");
    unsetenv("LUMORA_LINK_CHANNEL");
    const bool isPrivate = std::getenv("LUMORA_FLOW_PRIVATE") != nullptr;
    const std::unique_ptr<KeyFile> key = isPrivate ? std::make_unique<KeyFile>() : nullptr;
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
