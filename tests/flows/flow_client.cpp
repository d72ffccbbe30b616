#include "flow_client.h"

#include <lumora.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <thread>

#include "flow_blocks.h"
#include "flow_device.h"
#include "stall_meter.h"

namespace lumora_test {

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr unsigned int CALL_LIMIT_MS = 2000;
constexpr auto SEARCH_PAUSE = milliseconds(50);
constexpr auto TALLY_LIMIT = seconds(7);
constexpr int SEARCHES_AT_FIRST = 100;

std::atomic<int> g_client{0};
FlowReceiver g_fromDevice;
std::atomic<unsigned long long> g_toOthers{0};

// ---- What fails ----

class Calls {
public:
    // Counts a failed call under its name.
    bool Succeeds(const char* name, int result) {
        const std::lock_guard<std::mutex> lock(mMutex);
        ++mCalls[name];
        mFailures[name] += result != 0 ? 1 : 0;
        return result == 0;
    }
    unsigned long long Print() {
        unsigned long long failures = 0;
        const std::lock_guard<std::mutex> lock(mMutex);
        for (const auto& [name, count] : mCalls) {
            std::printf("  %s: %llu calls, %llu failed\n", name.c_str(), count, mFailures[name]);
            failures += mFailures[name];
        }
        return failures;
    }

private:
    std::mutex mMutex;
    std::map<std::string, unsigned long long> mCalls;
    std::map<std::string, unsigned long long> mFailures;
};

Calls g_calls;

// ---- The device's word on its side ----

class TallyBox {
public:
    void Put(const char* data, std::size_t length) {
        const std::lock_guard<std::mutex> lock(mMutex);
        std::memcpy(&mTally, data, std::min(length, sizeof(mTally)));
        mHere = true;
        mCame.notify_all();
    }
    bool Wait(DeviceTally& tally) {
        std::unique_lock<std::mutex> lock(mMutex);
        const bool here = mCame.wait_for(lock, TALLY_LIMIT, [this] { return mHere; });
        tally = mTally;
        return here;
    }

private:
    std::mutex mMutex;
    std::condition_variable mCame;
    DeviceTally mTally;
    bool mHere = false;
};

TallyBox g_tally;

int OnDeviceEvent(LUM_DEVICE_EVENT_S event) {
    if (event.clientID != g_client) {
        ++g_toOthers;
    } else if (std::strcmp(event.serviceName, TALLY_SERVICE) == 0) {
        g_tally.Put(event.data, event.dataLen);
    } else {
        g_fromDevice.Take(event.data, event.dataLen);
    }
    return 0;
}

// ---- Connecting ----

int Subscribe(int client, unsigned int handle, const char* service) {
    LUM_SUBSCRIBE_SERVICE_S what = {"", 0, LUM_TRANSPORT_TCP};
    std::snprintf(what.serviceName, sizeof(what.serviceName), "%s", service);
    return LUM_SendCmd(client, handle, "subscribe", reinterpret_cast<const char*>(&what));
}

bool Lists(const LUM_DEVICES_INFO_S& found, const std::string& type) {
    return std::any_of(found.devInfo, found.devInfo + found.devNum,
                       [&](const LUM_DEVICE_INFO_S& device) { return type == device.devServiceType; });
}

// 0 when a search lists all of them.
int Find(const std::vector<std::string>& types) {
    LUM_DEVICES_INFO_S found;
    const bool all =
        LUM_GetAiDeviceList(FLOW_LINK_TYPE, &found) == 0 &&
        std::all_of(types.begin(), types.end(), [&](const std::string& type) { return Lists(found, type); });
    return all ? 0 : -1;
}

int FindEventually(const std::vector<std::string>& types) {
    for (int search = 0; search < SEARCHES_AT_FIRST; ++search) {
        if (Find(types) == 0) {
            return 0;
        }
        std::this_thread::sleep_for(SEARCH_PAUSE);
    }
    return -1;
}

// ---- Options ----

class Options {
public:
    explicit Options(const std::vector<std::string>& options) : mOptions(options.begin(), options.end()) {}

    bool Has(const std::string& name) const { return mOptions.count(name) != 0; }
    unsigned long Number(const std::string& name, unsigned long usual) const {
        const auto at = mOptions.lower_bound(name + "=");
        const bool given = at != mOptions.end() && at->rfind(name + "=", 0) == 0;
        return given ? std::strtoul(at->c_str() + name.size() + 1, nullptr, 10) : usual;
    }
    bool Sends() const { return Has("up") || Has("echo") || !Has("down"); }
    bool Receives() const { return Has("down") || Has("echo") || !Has("up"); }
    // Whether no other call holds up the next send of this process.
    bool SendsAlone() const {
        return !Has("search") && !Has("second") && !Has("version") && !Has("silent") &&
               Number("command", 0) == 0;
    }

private:
    std::set<std::string> mOptions;
};

// ---- The flow ----

class FlowClient {
public:
    FlowClient(int duration, const std::vector<std::string>& options)
        : mOptions(options), mEnd(mBegin + seconds(duration)) {}

    int Run() {
        const bool good = Begin();
        Check(good, "the flow does not begin");
        if (good) {
            std::puts("begun");
            mEnd += Clock::now() - mBegin;
            RunThreads();
        }
        const bool kept = good && Judge(EndFlow());
        LUM_DeInitClient(mClient);
        return kept ? 0 : 1;
    }

private:
    bool Begin() {
        std::vector<std::string> types = {"stream"};
        if (mOptions.Has("silent")) {
            types.emplace_back("silent");
        }
        const std::string start = std::to_string(std::min<unsigned long>(mSize, LUM_MAX_SERVER_DATA_LENGTH)) +
                                  " " + std::to_string(mPace);
        if (LUM_InitClient(&mClient, "flow-client") != 0) {
            return false;
        }
        g_client = mClient;  // before the first block can arrive
        return FindEventually(types) == 0 && LUM_CreateAiDevice(mClient, "stream", &mHandle) == 0 &&
               (types.size() == 1 || LUM_CreateAiDevice(mClient, "silent", &mSilent) == 0) &&
               LUM_RegisterAiDeviceEvent(mClient, mHandle, OnDeviceEvent) == 0 &&
               LUM_ConnectAiDevice(mClient, mHandle) == 0 &&
               Subscribe(mClient, mHandle, TALLY_SERVICE) == 0 &&
               (!mOptions.Receives() || Subscribe(mClient, mHandle, DOWN_SERVICE) == 0) &&
               (!mOptions.Has("echo") || LUM_SendCmd(mClient, mHandle, "echo", "") == 0) &&
               (!mOptions.Receives() || mOptions.Has("echo") ||
                LUM_SendCmd(mClient, mHandle, "start", start.c_str()) == 0);
    }

    void RunThreads() {
        std::vector<std::thread> threads;
        const auto run = [&](bool wanted, void (FlowClient::*work)()) {
            if (wanted) {
                threads.emplace_back(work, this);
            }
        };
        run(mOptions.Sends(), &FlowClient::SendBlocks);
        run(mOptions.Has("search"), &FlowClient::Search);
        run(mOptions.Number("command", 0) != 0, &FlowClient::SendCommands);
        run(mOptions.Has("second"), &FlowClient::ComeAndGo);
        run(mOptions.Has("version"), &FlowClient::AskVersion);
        run(mOptions.Has("silent"), &FlowClient::AskSilentDevice);
        while (IsRunning()) {
            std::this_thread::sleep_for(milliseconds(5));
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
    }

    bool IsRunning() const { return Clock::now() < mEnd; }

    // Ends at a failure: a broken channel stays broken. A call also waits for other calls of this process.
    void SendBlocks() {
        FlowWriter blocks(mSize);
        while (IsRunning() && mBroken == 0) {
            const Clock::time_point begin = Clock::now();
            const std::vector<char>& block = blocks.Next();
            unsigned int sent = 0;
            const auto length = static_cast<unsigned int>(block.size());
            const int result = LUM_SendData(mClient, mHandle, block.data(), length, &sent, CALL_LIMIT_MS);
            mLongestSend = std::max<Milliseconds>(mLongestSend, Clock::now() - begin);
            blocks.Returned();
            ++(result == 0 && sent == length ? mSent : mBroken);
            std::this_thread::sleep_until(begin + milliseconds(mPace));
        }
    }

    void Search() {
        Repeat(seconds(1), [] { g_calls.Succeeds("search", Find({"stream"})); });
    }

    void SendCommands() {
        const std::string duration = std::to_string(mOptions.Number("command", 0));
        Repeat(milliseconds(200), [&] {
            g_calls.Succeeds("command", LUM_SendCmd(mClient, mHandle, "sleep", duration.c_str()));
        });
    }

    void AskVersion() {
        Repeat(milliseconds(100), [&] {
            char version[LUM_MIN_VERSION_BUFFER_LENGTH];
            g_calls.Succeeds("version", LUM_GetServerVersion(mClient, mHandle, version, sizeof(version)));
        });
    }

    // Succeeds only while the device answers.
    void AskSilentDevice() {
        Repeat(milliseconds(100), [&] {
            char version[LUM_MIN_VERSION_BUFFER_LENGTH];
            LUM_GetServerVersion(mClient, mSilent, version, sizeof(version));
            ++mAskedSilent;
        });
    }

    void ComeAndGo() {
        Repeat(milliseconds(50), [&] {
            int client = 0;
            unsigned int handle = 0;
            if (!g_calls.Succeeds("second: init", LUM_InitClient(&client, "flow-client"))) {
                return;
            }
            g_calls.Succeeds("second: create", LUM_CreateAiDevice(client, "stream", &handle));
            g_calls.Succeeds("second: register", LUM_RegisterAiDeviceEvent(client, handle, OnDeviceEvent));
            g_calls.Succeeds("second: connect", LUM_ConnectAiDevice(client, handle));
            g_calls.Succeeds("second: subscribe", Subscribe(client, handle, DOWN_SERVICE));
            std::this_thread::sleep_for(milliseconds(50));
            g_calls.Succeeds("second: destroy", LUM_DestoryAiDevice(client, handle));
            g_calls.Succeeds("second: disconnect", LUM_DisconnectAiDevice(client, handle));
            g_calls.Succeeds("second: end", LUM_DeInitClient(client));
        });
    }

    template <typename Pause>
    void Repeat(Pause pause, const std::function<void()>& work) {
        while (IsRunning()) {
            work();
            std::this_thread::sleep_for(pause);
        }
    }

    bool EndFlow() {
        return LUM_SendCmd(mClient, mHandle, "stop", std::to_string(mSent).c_str()) == 0 &&
               g_tally.Wait(mDevice);
    }

    // ---- What came of it ----

    bool Judge(bool ended) {
        const FlowReport down = g_fromDevice.Report();
        const Milliseconds stall = std::max(mStall.Longest(), Milliseconds(mDevice.stallMs));
        const Milliseconds most =
            std::max(Milliseconds(mOptions.Number("late", mPace == 0 ? 300 : 100)), 2 * stall);
        const unsigned long long sentDown = mOptions.Has("echo") ? mSent : mDevice.sent;
        PrintFigures(down, sentDown, stall);
        const unsigned long long failures = g_calls.Print();
        if (!ended) {
            Check(mBroken == 0, "the channel broke");
            Check(false, "the device does not say what it sent and received");
            return false;
        }
        Check(mBroken == 0 && mDevice.failed == 0, "the channel broke");
        Check(failures == 0, "calls failed");
        Check(mSent == mDevice.received && mDevice.damaged == 0, "blocks to the device are lost or damaged");
        Check(sentDown == down.received && down.damaged == 0, "blocks to the client are lost or damaged");
        Check(!mOptions.Sends() || mSent > 0, "nothing was sent to the device");
        Check(!mOptions.Receives() || down.received > 0, "nothing was sent to the client");
        JudgePauses(down, most);
        return mFaults == 0;
    }

    void PrintFigures(const FlowReport& down, unsigned long long sentDown, Milliseconds stall) const {
        std::printf(
            "  up: sent %llu, received %llu, damaged %llu, gap %.0f ms, late %.0f ms, longest send %.0f ms\n",
            mSent, mDevice.received, mDevice.damaged, mDevice.gapMs, mDevice.latenessMs,
            mLongestSend.count());
        std::printf(
            "  down: sent %llu, received %llu, damaged %llu, gap %.0f ms, late %.0f ms, longest send %.0f "
            "ms\n",
            sentDown, static_cast<unsigned long long>(down.received),
            static_cast<unsigned long long>(down.damaged), down.gap.count(), down.lateness.count(),
            mDevice.longestSendMs);
        if (down.lost != 0) {
            std::printf("  down: %llu blocks were passed over, the first is number %llu\n",
                        static_cast<unsigned long long>(down.lost),
                        static_cast<unsigned long long>(down.firstLost));
        }
        std::printf(
            "  stall of the machine %.0f ms; %llu events of other clients, %llu questions to a silent "
            "device\n",
            stall.count(), g_toOthers.load(), mAskedSilent);
    }

    void JudgePauses(const FlowReport& down, Milliseconds most) {
        if (mPace != 0) {  // back to back, blocks also wait behind each other
            Check(mDevice.latenessMs <= most.count(), "blocks to the device come late");
            Check(down.lateness <= most, "blocks to the client come late");
        }
        // The device's own sends wait for no call of this process; an echo waits for a block to answer.
        const bool downFlows = !mOptions.Has("echo") || mOptions.SendsAlone();
        Check(!downFlows || mPace > PACE_WITH_GAPS || down.gap <= most, "blocks to the client pause");
        Check(!mOptions.SendsAlone() || mPace > PACE_WITH_GAPS || mDevice.gapMs <= most.count(),
              "blocks to the device pause");
    }

    void Check(bool kept, const char* fault) {
        if (!kept) {
            std::printf("FAULT: %s\n", fault);
            ++mFaults;
        }
    }

    // A slower flow has pauses of its own.
    static constexpr unsigned long PACE_WITH_GAPS = 50;

    const Options mOptions;
    const unsigned long mSize = mOptions.Number("size", 100000);
    const unsigned long mPace = mOptions.Number("pace", 20);
    const Clock::time_point mBegin = Clock::now();
    Clock::time_point mEnd;
    const StallMeter mStall;
    int mClient = 0;
    unsigned int mHandle = 0;
    unsigned int mSilent = 0;
    unsigned long long mSent = 0;
    unsigned long long mBroken = 0;
    unsigned long long mAskedSilent = 0;
    Milliseconds mLongestSend{0};
    DeviceTally mDevice;
    int mFaults = 0;
};

}  // namespace

int RunFlowClient(int duration, const std::vector<std::string>& options) {
    return FlowClient(duration, options).Run();
}

int RunBystander() {
    std::atomic<bool> end{false};
    std::thread input([&] {
        while (std::getchar() != EOF) {
        }
        end = true;
    });
    int client = 0;
    unsigned int handle = 0;
    const bool good = LUM_InitClient(&client, "flow-bystander") == 0;
    while (good && !end) {
        if (Find({"silent"}) == 0 && LUM_CreateAiDevice(client, "silent", &handle) == 0) {
            LUM_ConnectAiDevice(client, handle);
            LUM_DisconnectAiDevice(client, handle);
        }
        std::this_thread::sleep_for(SEARCH_PAUSE);
    }
    input.join();
    return good && LUM_DeInitClient(client) == 0 ? 0 : 1;
}

}  // namespace lumora_test
