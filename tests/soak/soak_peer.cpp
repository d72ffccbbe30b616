// One process of a soak: a device, or a client that goes from device to device. Whatever happens to it and to
// the others, no block may come damaged, twice, late, or after a gap within one connection, and nothing may
// be left over at the end. Faults go to standard output; the exit code is 3 when there were some.
//
// usage: soak_peer device TYPE
//        soak_peer client NUMBER TYPE...
#include <dirent.h>
#include <lumora.h>
#include <malloc.h>
#include <signal.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "blocks.h"

namespace lumora_test {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr char SERVICE[] = "stream";
constexpr auto BLOCK_PACE = milliseconds(4);
constexpr auto COMMAND_PACE = milliseconds(200);
constexpr auto RETRY_PAUSE = milliseconds(100);
constexpr auto TALLY_PACE = seconds(1);
// A connection on which nothing comes for so long is given up, as an application would.
constexpr auto SILENCE = seconds(3);
// A device knows clients by their IDs alone: who leaves would end the subscriptions of another process's
// client with the same one. So each process, numbered from 1, uses two IDs of its own. It has clients for all
// others as well, or blocks that name them would not be delivered to the clients listed after them.
constexpr int OWN_CLIENTS = 2;
constexpr int PROCESSES = 3;
constexpr int CLIENTS = OWN_CLIENTS * PROCESSES;
// What allocators and the C library keep for themselves.
constexpr std::size_t HEAP_SLACK = 512 * 1024;
constexpr std::size_t LONGEST_FROM_DEVICE = 1000000;
constexpr std::size_t LONGEST_FROM_CLIENT = 3000000;

volatile sig_atomic_t g_end = 0;
void OnEndSignal(int) { g_end = 1; }

std::size_t EntriesOf(const char* folder) {
    std::size_t entries = 0;
    DIR* const dir = opendir(folder);
    while (dir != nullptr && readdir(dir) != nullptr) {
        ++entries;
    }
    if (dir != nullptr) {
        closedir(dir);
    }
    return entries;
}

// What may not grow from one start of the library to the next.
class Holdings {
public:
    Holdings()
        : mDescriptors(EntriesOf("/proc/self/fd")),
          mThreads(EntriesOf("/proc/self/task")),
          mHeap(mallinfo2().uordblks) {}

    void ExpectNoMoreThan(const Holdings& before) const {
        ExpectAtMost("descriptors", mDescriptors, before.mDescriptors);
        ExpectAtMost("threads", mThreads, before.mThreads);
        ExpectAtMost("bytes of heap", mHeap, before.mHeap + HEAP_SLACK);
    }

private:
    static void ExpectAtMost(const char* what, std::size_t now, std::size_t before) {
        if (now > before) {
            ReportFault(std::to_string(now) + " " + what + " instead of " + std::to_string(before));
        }
    }

    std::size_t mDescriptors;
    std::size_t mThreads;
    std::size_t mHeap;
};

// A line a second: a process that is killed has told nearly all by then.
class Tally {
public:
    void Write(const char* role, const BlockChecker& received, std::uint64_t sent, std::uint64_t connects) {
        if (Clock::now() < mNext) {
            return;
        }
        mNext = Clock::now() + TALLY_PACE;
        std::printf("tally %s received %" PRIu64 " bytes %" PRIu64 " sent %" PRIu64 " connects %" PRIu64 "\n",
                    role, received.Blocks(), received.Bytes(), sent, connects);
    }

private:
    Clock::time_point mNext = Clock::now();
};

// ---- Device ----

BlockChecker g_fromClients;

int OnData(int, const char* data, unsigned int length) {
    // A client begins each of its connections with a source of its own.
    if (g_fromClients.Take(data, length) == Arrival::AFTER_A_GAP) {
        ReportFault("blocks of a client's connection are missing");
    }
    return 0;
}

// The parameter: who asks, the number of the command, and the number of the last one that was answered.
int OnCommand(const char*, const char* param) {
    static std::mutex mutex;
    static std::map<std::uint64_t, std::uint64_t> lastOf;
    std::uint64_t source = 0;
    std::uint64_t number = 0;
    std::uint64_t answered = 0;
    if (std::sscanf(param, "%" SCNu64 " %" SCNu64 " %" SCNu64, &source, &number, &answered) != 3) {
        ReportFault(std::string("command \"") + param + "\" is torn");
        return 0;
    }
    const std::lock_guard<std::mutex> lock(mutex);
    std::uint64_t& last = lastOf[source];
    if (number <= last) {
        ReportFault("command " + std::to_string(number) + " ran again or late");
    }
    if (last < answered) {
        ReportFault("command " + std::to_string(answered) + " was answered and never ran");
    }
    last = number;
    return 0;
}

int OnEventNotify(int, int, LUM_SUBSCRIBE_SERVICE_S) { return 0; }

void SendUntilTheEnd() {
    BlockWriter blocks(LONGEST_FROM_DEVICE);
    Tally tally;
    std::uint64_t sent = 0;
    while (g_end == 0) {
        const std::vector<char>& block = blocks.Next();
        unsigned int count = 0;
        const bool whole = LUM_SendDataToClient(SERVICE, block.data(),
                                                static_cast<unsigned int>(block.size()), &count, 1000) == 0 &&
                           count == block.size();
        sent += whole ? 1 : 0;
        tally.Write("device", g_fromClients, sent, 0);
        std::this_thread::sleep_for(whole ? BLOCK_PACE : RETRY_PAUSE);
    }
}

int RunDevice(const char* type) {
    const Holdings before;
    LUM_DEVICE_INFO_S device = {};
    device.serviceNum = 1;
    std::snprintf(device.devServiceType, sizeof(device.devServiceType), "%s", type);
    std::snprintf(device.serviceInfo[0].serviceName, sizeof(device.serviceInfo[0].serviceName), "%s",
                  SERVICE);
    device.serviceInfo[0].transport = LUM_TRANSPORT_TCP;
    device.OnCommand = OnCommand;
    device.OnEventNotify = OnEventNotify;
    device.OnData = OnData;
    if (LUM_InitServer(type) != 0 || LUM_RegisterAiDevInfo(&device) != 0) {
        return 1;
    }
    std::puts("ready");
    SendUntilTheEnd();
    if (LUM_DeInitServer() != 0) {
        ReportFault("the device does not end");
    }
    Holdings().ExpectNoMoreThan(before);
    return 0;
}

// ---- Client ----

// Blocks for the own clients of this process. Gaps are expected between connections only.
class Inbox {
public:
    void SetOwn(int first) { mFirst = first; }

    // Odd while a connection is being made, when blocks of the one before may still come.
    void BeginOrEndConnecting() { ++mPeriod; }

    void Take(const LUM_DEVICE_EVENT_S& event) {
        if (event.clientID < mFirst || event.clientID >= mFirst + OWN_CLIENTS) {
            return;
        }
        const int period = mPeriod;
        int& last = mPeriodOf.at(static_cast<std::size_t>(event.clientID));
        const Arrival arrival = Of(event.clientID).Take(event.data, event.dataLen);
        if (arrival == Arrival::AFTER_A_GAP && period % 2 == 0 && period == last) {
            ReportFault("blocks of a device's connection are missing");
        }
        last = period;
        mLastArrival = Clock::now().time_since_epoch().count();
    }

    bool IsSilentSince(Clock::time_point begin) const {
        const Clock::time_point last{Clock::duration(mLastArrival.load())};
        return Clock::now() - std::max(begin, last) > SILENCE;
    }

    BlockChecker& Of(int clientID) { return mCheckers.at(static_cast<std::size_t>(clientID)); }

private:
    int mFirst = 1;  // set before anything can come
    std::array<BlockChecker, CLIENTS + 1> mCheckers;
    std::array<int, CLIENTS + 1> mPeriodOf{};  // of the receive thread
    std::atomic<int> mPeriod{0};
    std::atomic<Clock::rep> mLastArrival{0};
};

Inbox g_inbox;

int OnDeviceEvent(LUM_DEVICE_EVENT_S event) {
    g_inbox.Take(event);
    return 0;
}

int OnClientEvent(int, LUM_EVENT_E) { return 0; }

class Client {
public:
    Client(int number, std::vector<std::string> types)
        : mTypes(std::move(types)), mFirst((number - 1) * OWN_CLIENTS + 1), mSecond(mFirst + 1) {
        g_inbox.SetOwn(mFirst);
    }

    void Run() {
        while (g_end == 0) {
            if (!mRunning && !Start()) {
                std::this_thread::sleep_for(RETRY_PAUSE);
                continue;
            }
            const bool good = Connect(mTypes[mType]) && Stream();
            Leave(good);
            std::this_thread::sleep_for(RETRY_PAUSE);
        }
        Stop();
    }

private:
    bool Start() {
        for (int number = 1; number <= CLIENTS; ++number) {
            int id = 0;
            if (LUM_InitClient(&id, "soak-client") != 0) {
                ReportFault("client " + std::to_string(number) + " does not start");
                return false;
            }
            LUM_RegisterEvent(id, OnClientEvent);
        }
        mRunning = true;
        return true;
    }

    void Stop() {
        for (int id = CLIENTS; mRunning && id > 0; --id) {
            if (LUM_DeInitClient(id) != 0) {
                ReportFault("client " + std::to_string(id) + " does not end");
            }
        }
        mRunning = false;
    }

    bool Connect(const std::string& type) {
        LUM_DEVICES_INFO_S found;
        if (LUM_GetAiDeviceList(type.c_str(), &found) != 0 || found.devNum == 0) {
            return false;
        }
        g_inbox.BeginOrEndConnecting();
        bool good = LUM_CreateAiDevice(mFirst, type.c_str(), &mHandle) == 0;
        for (int id = 1; good && id <= CLIENTS; ++id) {
            good = LUM_RegisterAiDeviceEvent(id, mHandle, OnDeviceEvent) == 0;
        }
        for (int id = mFirst; good && id <= mSecond; ++id) {
            const LUM_SUBSCRIBE_SERVICE_S stream = {"stream", 0, LUM_TRANSPORT_TCP};
            good = LUM_ConnectAiDevice(id, mHandle) == 0 &&
                   LUM_SendCmd(id, mHandle, "subscribe", reinterpret_cast<const char*>(&stream)) == 0;
        }
        g_inbox.BeginOrEndConnecting();
        mConnects += good ? 1 : 0;
        return good;
    }

    // False when the connection was lost.
    bool Stream() {
        const Clock::time_point begin = Clock::now();
        const Clock::time_point end = begin + milliseconds(1000 + mRandom() % 6000);
        // The device may be another process than before, which knows nothing of the earlier ones.
        mBlocks.BeginAnew();
        mCommandSource = NewSource();
        mCommand = mAnswered = 0;
        while (g_end == 0 && Clock::now() < end) {
            if (!SendBlock() || !SendCommandWhenDue() || g_inbox.IsSilentSince(begin)) {
                return false;
            }
            mTally.Write("client", g_inbox.Of(mFirst), mSent, mConnects);
            std::this_thread::sleep_for(BLOCK_PACE);
        }
        return true;
    }

    bool SendBlock() {
        const std::vector<char>& block = mBlocks.Next();
        unsigned int count = 0;
        const auto length = static_cast<unsigned int>(block.size());
        const bool whole =
            LUM_SendData(mFirst, mHandle, block.data(), length, &count, 1000) == 0 && count == length;
        mSent += whole ? 1 : 0;
        return whole;
    }

    bool SendCommandWhenDue() {
        if (Clock::now() < mNextCommand) {
            return true;
        }
        mNextCommand = Clock::now() + COMMAND_PACE;
        ++mCommand;
        const std::string param =
            std::to_string(mCommandSource) + " " + std::to_string(mCommand) + " " + std::to_string(mAnswered);
        if (LUM_SendCmd(mSecond, mHandle, "count", param.c_str()) != 0) {
            return false;
        }
        mAnswered = mCommand;
        return true;
    }

    // In one of the ways in which applications leave. If a connection was lost, and to go to another
    // device, the library is started anew.
    void Leave(bool good) {
        if (mRandom() % 2 == 0) {
            for (int id = mFirst; id <= mSecond; ++id) {
                LUM_DestoryAiDevice(id, mHandle);
            }
        }
        if (mRandom() % 2 == 0) {
            for (int id = mFirst; id <= mSecond; ++id) {
                LUM_DisconnectAiDevice(id, mHandle);
            }
        }
        const bool stays = mRandom() % 3 == 0;
        if (stays) {
            return;
        }
        Stop();
        mType = (mType + (good ? 1 : mRandom() % 2)) % mTypes.size();
    }

    const std::vector<std::string> mTypes;
    const int mFirst;
    const int mSecond;
    std::size_t mType = 0;
    std::mt19937_64 mRandom{NewSource()};
    bool mRunning = false;
    unsigned int mHandle = 0;
    BlockWriter mBlocks{LONGEST_FROM_CLIENT};
    Tally mTally;
    std::uint64_t mSent = 0;
    std::uint64_t mConnects = 0;
    Clock::time_point mNextCommand = Clock::now();
    std::uint64_t mCommandSource = 0;
    std::uint64_t mCommand = 0;
    std::uint64_t mAnswered = 0;
};

int RunClient(int number, const std::vector<std::string>& types) {
    const Holdings before;
    Client(number, types).Run();
    Holdings().ExpectNoMoreThan(before);
    return 0;
}

int Run(const std::vector<std::string>& arguments) {
    if (arguments.size() == 2 && arguments[0] == "device") {
        return RunDevice(arguments[1].c_str());
    }
    if (arguments.size() >= 3 && arguments[0] == "client") {
        const int number = std::atoi(arguments[1].c_str());
        if (number >= 1 && number <= PROCESSES) {
            return RunClient(number, {arguments.begin() + 2, arguments.end()});
        }
    }
    std::fputs("usage: soak_peer device TYPE | soak_peer client NUMBER TYPE...\n", stderr);
    return 2;
}

}  // namespace
}  // namespace lumora_test

int main(int argc, char** argv) {
    std::setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);
    // The first thread of a process brings one of the thread sanitizer's own.
    std::thread([] {}).join();
    signal(SIGTERM, lumora_test::OnEndSignal);
    signal(SIGINT, lumora_test::OnEndSignal);
    const int status = lumora_test::Run({argv + 1, argv + argc});
    std::printf("ended with %d faults\n", lumora_test::Faults());
    return status == 0 && lumora_test::Faults() != 0 ? 3 : status;
}
