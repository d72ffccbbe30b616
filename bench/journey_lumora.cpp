#include <unistd.h>

#include <atomic>
#include <cstdio>

#include "bench/journey.h"
#include "bench/records.h"
#include "bench/signal.h"
#include "lumora.h"

namespace lumora_bench {

namespace {

constexpr unsigned int TIMEOUT_MS = 2000;
// The block follows the subscription within milliseconds.
constexpr unsigned int BLOCK_TIMEOUT_MS = 5000;
constexpr unsigned int BLOCK = 1024;

Signal g_subscribed;
Signal g_received;

int OnNotify(int, int event, LUM_SUBSCRIBE_SERVICE_S) {
    if (event == LUM_NOTIFY_SUBSCRIBED) {
        g_subscribed.Raise();
    }
    return 0;
}
int OnData(int, const char*, unsigned int) { return 0; }
int OnDeviceEvent(LUM_DEVICE_EVENT_S) {
    g_received.Raise();
    return 0;
}

void Check(int result, const char* what) {
    if (result != 0) {
        Fail(std::string(what) + " failed");
    }
}

}  // namespace

// One device sends a block to each subscriber. The others are those of lumora_bench_crowd.
void Offer(const std::string& type, unsigned int) {
    const LUM_DEVICE_INFO_S device = DeviceRecord(type, OnNotify, OnData);
    Check(LUM_InitServer(type.c_str()), "LUM_InitServer");
    Check(LUM_RegisterAiDevInfo(&device), "LUM_RegisterAiDevInfo");
    std::puts("ready");
    std::fflush(stdout);
    const std::string block(BLOCK, 'x');
    for (;;) {
        g_subscribed.Wait();
        unsigned int sent = 0;
        LUM_SendDataToClient(SERVICE, block.data(), BLOCK, &sent, TIMEOUT_MS);
    }
}

unsigned int Travel(const std::string& type, unsigned int, Steps& steps) {
    int id = 0;
    unsigned int handle = 0;
    LUM_DEVICES_INFO_S found = {};
    Check(LUM_InitClient(&id, "bench-client"), "LUM_InitClient");
    steps.Reach("started");
    Check(LUM_GetAiDeviceList(type.c_str(), &found), "LUM_GetAiDeviceList");
    steps.Reach("found");
    Check(LUM_CreateAiDevice(id, found.devInfo[0].devServiceType, &handle), "LUM_CreateAiDevice");
    Check(LUM_RegisterAiDeviceEvent(id, handle, OnDeviceEvent), "LUM_RegisterAiDeviceEvent");
    Check(LUM_ConnectAiDevice(id, handle), "LUM_ConnectAiDevice");
    steps.Reach("connected");
    const LUM_SUBSCRIBE_SERVICE_S subscription = Subscription();
    Check(LUM_SendCmd(id, handle, "subscribe", reinterpret_cast<const char*>(&subscription)), "LUM_SendCmd");
    steps.Reach("subscribed");
    g_received.WaitOrFail(BLOCK_TIMEOUT_MS, "the device sent no block within 5 s");
    steps.Reach("first_block");
    return found.devNum;
}

}  // namespace lumora_bench
