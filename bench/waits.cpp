// Times each call of a client and of a device. bench/waits starts it.
#include <unistd.h>

#include <cstdio>
#include <string>

#include "bench/process_cost.h"
#include "bench/records.h"
#include "bench/signal.h"
#include "lumora.h"

namespace lumora_bench {

namespace {

constexpr const char* USAGE =
    "usage: lumora_bench_waits ROLE TYPE\n"
    "  device   offers a device of TYPE\n"
    "  client   connects to a device of TYPE\n"
    "  search   searches for devices of TYPE\n"
    "Prints a line of JSON when it is there and one when it has ended, which is when standard input does.\n";
constexpr int COMMANDS = 20;

int OnNotify(int, int, LUM_SUBSCRIBE_SERVICE_S) { return 0; }
int OnData(int, const char*, unsigned int) { return 0; }
int OnDeviceEvent(LUM_DEVICE_EVENT_S) { return 0; }

// Milliseconds that a call takes. The call must succeed.
template <typename Call>
double Timed(const char* what, Call call) {
    const Clock::time_point begin = Clock::now();
    if (call() != 0) {
        Fail(std::string(what) + " failed");
    }
    return MillisecondsSince(begin);
}

void WaitForEndOfInput() {
    std::fflush(stdout);
    char ignored[64];
    while (read(STDIN_FILENO, ignored, sizeof(ignored)) > 0) {
    }
}

void BeDevice(const std::string& type) {
    const LUM_DEVICE_INFO_S device = DeviceRecord(type, OnNotify, OnData);
    const long loaded = ResidentKilobytes();
    const double init = Timed("LUM_InitServer", [&] { return LUM_InitServer(type.c_str()); });
    const double offer = Timed("LUM_RegisterAiDevInfo", [&] { return LUM_RegisterAiDevInfo(&device); });
    std::printf("{\"loaded_kb\":%ld,\"init_server_ms\":%.3f,\"register_ms\":%.3f}\n", loaded, init, offer);
    WaitForEndOfInput();
    std::printf("{\"resident_kb\":%ld", ResidentKilobytes());
    std::printf(",\"deinit_server_ms\":%.3f}\n", Timed("LUM_DeInitServer", LUM_DeInitServer));
}

struct Client {
    int id = 0;
    unsigned int handle = 0;
    LUM_DEVICES_INFO_S found = {};

    double Init() {
        return Timed("LUM_InitClient", [&] { return LUM_InitClient(&id, "bench-client"); });
    }
    double Search(const std::string& type) {
        return Timed("LUM_GetAiDeviceList", [&] { return LUM_GetAiDeviceList(type.c_str(), &found); });
    }
    double DeInit() const {
        return Timed("LUM_DeInitClient", [&] { return LUM_DeInitClient(id); });
    }
};

void Search(const std::string& type) {
    Client client;
    const double init = client.Init();
    const double first = client.Search(type);
    std::printf("{\"init_client_ms\":%.3f,\"first_search_ms\":%.3f,\"found\":%u}\n", init, first,
                client.found.devNum);
    std::printf("{\"deinit_client_ms\":%.3f}\n", client.DeInit());
}

void BeClient(const std::string& type) {
    const long loaded = ResidentKilobytes();
    const LUM_SUBSCRIBE_SERVICE_S subscription = Subscription();
    Client client;
    const double init = client.Init();
    const double search = client.Search(type);
    Timed("LUM_CreateAiDevice", [&] {
        return LUM_CreateAiDevice(client.id, client.found.devInfo[0].devServiceType, &client.handle);
    });
    Timed("LUM_RegisterAiDeviceEvent",
          [&] { return LUM_RegisterAiDeviceEvent(client.id, client.handle, OnDeviceEvent); });
    const double connect =
        Timed("LUM_ConnectAiDevice", [&] { return LUM_ConnectAiDevice(client.id, client.handle); });
    const double subscribe = Timed("LUM_SendCmd", [&] {
        return LUM_SendCmd(client.id, client.handle, "subscribe",
                           reinterpret_cast<const char*>(&subscription));
    });
    double commands = 0;
    for (int i = 0; i < COMMANDS; ++i) {
        commands +=
            Timed("LUM_SendCmd", [&] { return LUM_SendCmd(client.id, client.handle, "SetMode", "night"); });
    }
    std::printf(
        "{\"loaded_kb\":%ld,\"init_client_ms\":%.3f,\"first_search_ms\":%.3f,\"connect_ms\":%.3f,"
        "\"subscribe_ms\":%.3f,\"command_ms\":%.3f}\n",
        loaded, init, search, connect, subscribe, commands / COMMANDS);
    WaitForEndOfInput();
    std::printf("{\"resident_kb\":%ld", ResidentKilobytes());
    std::printf(",\"deinit_client_ms\":%.3f}\n", client.DeInit());
}

}  // namespace

}  // namespace lumora_bench

int main(int count, char** arguments) {
    const std::string role = count == 3 ? arguments[1] : "";
    if (role == "device") {
        lumora_bench::BeDevice(arguments[2]);
    } else if (role == "client") {
        lumora_bench::BeClient(arguments[2]);
    } else if (role == "search") {
        lumora_bench::Search(arguments[2]);
    } else {
        std::fputs(lumora_bench::USAGE, stderr);
        return 2;
    }
    return 0;
}
