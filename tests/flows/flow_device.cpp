#include "flow_device.h"

#include <lumora.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "flow_blocks.h"
#include "stall_meter.h"

namespace lumora_test {

namespace {

using std::chrono::milliseconds;

constexpr unsigned int SEND_LIMIT_MS = 3000;
constexpr auto FAILURE_PAUSE = milliseconds(20);
constexpr auto LAST_BLOCKS_LIMIT = std::chrono::seconds(5);

std::atomic<bool> g_end{false};
std::atomic<bool> g_streaming{false};
std::atomic<bool> g_echoing{false};
std::atomic<int> g_subscribers{0};
std::atomic<unsigned long> g_size{0};
std::atomic<unsigned long> g_pace{0};
std::atomic<long long> g_expected{-1};  // blocks from the client, once it has sent them all
std::atomic<unsigned long long> g_sent{0};
std::atomic<unsigned long long> g_failed{0};
std::atomic<double> g_longestSend{0};
FlowReceiver g_fromClient;

bool Send(const char* service, const void* data, unsigned int length) {
    unsigned int sent = 0;
    const Clock::time_point begin = Clock::now();
    const bool whole =
        LUM_SendDataToClient(service, data, length, &sent, SEND_LIMIT_MS) == 0 && sent == length;
    const double took = Milliseconds(Clock::now() - begin).count();
    if (took > g_longestSend) {
        g_longestSend = took;
    }
    return whole;
}

void SendBlock(const char* data, unsigned int length) {
    ++(Send(DOWN_SERVICE, data, length) ? g_sent : g_failed);
}

int OnData(int, const char* data, unsigned int length) {
    if (g_echoing) {
        SendBlock(data, std::min<unsigned int>(length, LUM_MAX_SERVER_DATA_LENGTH));
    }
    g_fromClient.Take(data, length);
    return 0;
}

int OnCommand(const char* cmd, const char* param) {
    if (std::strcmp(cmd, "sleep") == 0) {
        std::this_thread::sleep_for(milliseconds(std::atoi(param)));
    } else if (std::strcmp(cmd, "echo") == 0) {
        g_echoing = true;
    } else if (std::strcmp(cmd, "start") == 0) {
        char* end = nullptr;
        g_size = std::strtoul(param, &end, 10);
        g_pace = std::strtoul(end, nullptr, 10);
        g_streaming = true;
    } else if (std::strcmp(cmd, "stop") == 0) {
        g_streaming = false;
        g_expected = std::atoll(param);
    }
    return 0;
}

int OnEventNotify(int, int event, LUM_SUBSCRIBE_SERVICE_S what) {
    if (std::strcmp(what.serviceName, DOWN_SERVICE) == 0) {
        g_subscribers += event == LUM_NOTIFY_SUBSCRIBED ? 1 : -1;
    }
    return 0;
}

void Stream() {
    FlowWriter blocks(g_size);
    while (g_streaming && !g_end) {
        const Clock::time_point begin = Clock::now();
        const std::vector<char>& block = blocks.Next();
        const unsigned long long failed = g_failed;
        SendBlock(block.data(), static_cast<unsigned int>(block.size()));
        blocks.Returned();
        std::this_thread::sleep_until(begin + milliseconds(g_pace));
        if (g_failed != failed) {
            std::this_thread::sleep_for(FAILURE_PAUSE);
        }
    }
}

void AwaitLastBlocks() {
    const Clock::time_point limit = Clock::now() + LAST_BLOCKS_LIMIT;
    while (!g_end && Clock::now() < limit &&
           g_fromClient.Report().received < static_cast<unsigned long long>(g_expected)) {
        std::this_thread::sleep_for(milliseconds(1));
    }
}

void SendTally(const StallMeter& stall) {
    const FlowReport report = g_fromClient.Report();
    const DeviceTally tally = {g_sent,
                               g_failed,
                               report.received,
                               report.lost,
                               report.damaged,
                               report.gap.count(),
                               report.lateness.count(),
                               g_longestSend,
                               stall.Longest().count()};
    std::printf("sent %llu failed %llu received %llu lost %llu damaged %llu longest send %.1f ms\n",
                tally.sent, tally.failed, tally.received, tally.lost, tally.damaged, tally.longestSendMs);
    Send(TALLY_SERVICE, &tally, sizeof(tally));
}

void ServeFlows() {
    const StallMeter stall;
    while (!g_end) {
        if (g_streaming && g_subscribers > 0) {
            Stream();
        }
        if (g_expected >= 0) {
            AwaitLastBlocks();
            SendTally(stall);
            g_expected = -1;
        }
        std::this_thread::sleep_for(milliseconds(1));
    }
}

LUM_DEVICE_INFO_S DescriptionOf(const char* devServiceType) {
    LUM_DEVICE_INFO_S device = {};
    std::snprintf(device.devServiceType, sizeof(device.devServiceType), "%s", devServiceType);
    for (const char* name : {DOWN_SERVICE, TALLY_SERVICE}) {
        LUM_SERVICE_INFO_S& service = device.serviceInfo[device.serviceNum++];
        std::snprintf(service.serviceName, sizeof(service.serviceName), "%s", name);
        service.transport = LUM_TRANSPORT_TCP;
    }
    device.OnCommand = OnCommand;
    device.OnEventNotify = OnEventNotify;
    device.OnData = OnData;
    return device;
}

}  // namespace

int RunFlowDevice(const char* devServiceType) {
    const LUM_DEVICE_INFO_S device = DescriptionOf(devServiceType);
    if (LUM_InitServer(FLOW_LINK_TYPE) != 0 || LUM_RegisterAiDevInfo(&device) != 0) {
        return 1;
    }
    std::puts("ready");
    std::thread flows(ServeFlows);
    while (std::getchar() != EOF) {
    }
    g_end = true;
    flows.join();
    return LUM_DeInitServer() == 0 ? 0 : 1;
}

}  // namespace lumora_test
