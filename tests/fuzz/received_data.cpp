// What the client makes of frames that were received whole: the way from the cut to the applications'
// callbacks.
#include <cstring>
#include <vector>

#include "client/client_module.h"
#include "tests/fuzz/mutation.h"
#include "tests/fuzz/require.h"
#include "tests/support/fake_platform.h"
#include "tests/support/raw_peer.h"
#include "tests/transport/open_transport.h"
#include "transport/tcp_client_transport.h"

using lumora_fuzz::Require;
using lumora_test::Bytes;
using lumoraAiModule::LumoraClientModule;

namespace {

constexpr int CLIENTS = 3;

// What one callback was handed, copied: whatever it is told to be there must be there.
struct Delivery {
    int clientID;
    Bytes name;
    Bytes payload;
};
std::vector<Delivery> g_deliveries;

int OnEvent(LUM_DEVICE_EVENT_S event) {
    Require(std::memchr(event.serviceName, '\0', sizeof(event.serviceName)) != nullptr,
            "names are terminated");
    g_deliveries.push_back({event.clientID, event.serviceName, Bytes(event.data, event.dataLen)});
    return 0;
}

// Clients 1 to 3, with callbacks.
std::shared_ptr<LumoraClientModule> MakeModule() {
    static lumora_test::FakePlatform platform;
    platform.devices.push_back(lumora_test::DescribedDevice(lumora_test::ServiceInfo("camera", "face")));
    std::shared_ptr<LumoraClientModule> module;
    std::string type = "camera";
    LUM_DEVICES_INFO_S found = {};
    unsigned int handle = 0;
    for (int i = 1; i <= CLIENTS; ++i) {
        int id = 0;
        module = LumoraClientModule::CreateInstance(&id, "phone");
        Require(module->InitLumoraModule(id) == 0, "the module starts");
        Require(module->GetNetDeviceList(type, &found) == 0, "a device is found");
        Require(module->CreateAiDevice(id, type, &handle) == 0, "it gets a handle");
        Require(module->RegisterAiDeviceEvent(id, handle, OnEvent) == 0, "the callback is taken");
    }
    return module;
}

// A frame that the sending side writes arrives as it was sent, at those of its clients who come first without
// a gap.
void RequireArrival(LumoraClientModule& module, const Bytes& input) {
    const std::size_t nameLength = 1 + static_cast<unsigned char>(input[0]) % 39;
    const Bytes rest = input.substr(1);
    const std::string name = std::string(rest.c_str()).substr(0, nameLength) + "s";
    const std::vector<unsigned int> clients = {1, 3};
    const Bytes payload = rest.size() > nameLength ? rest.substr(nameLength) : "p";
    Bytes frame(lumoraAiModule::SERVER_FRAME_FIXED_HEAD_LENGTH + clients.size(), '\0');
    const auto length = static_cast<std::uint32_t>(payload.size());
    lumoraAiModule::WriteServerFrameHead(frame.data(), length, clients, name);
    frame += name + payload;
    lumora_test::ReceivedBytes received(frame);
    const bool fits = name.size() < LUM_NAME_SIZE;
    Require(module.OnRecvData(received.Data(), received.Length()) == (fits ? 0 : -1),
            "a whole frame is taken");
    Require(g_deliveries.size() == (fits ? clients.size() : 0), "each client hears of it");
    for (const Delivery& delivery : g_deliveries) {
        Require(delivery.name == name && delivery.payload == payload, "it arrives as it was sent");
    }
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const std::shared_ptr<LumoraClientModule> module = MakeModule();
    static const auto transport = std::make_shared<lumora_test::OpenClient>(*module, 1U);
    if (size == 0) {
        return 0;
    }
    g_deliveries.clear();
    const Bytes input(data, data + size);
    lumora_test::ReceivedBytes received(input);
    unsigned int consumed = 0;
    transport->ClientParseAndSendData(received.Data(), received.Length(), consumed);
    Require(consumed <= size, "no more is consumed than there was");
    g_deliveries.clear();
    RequireArrival(*module, input);
    return 0;
}

std::size_t LLVMFuzzerCustomMutator(std::uint8_t* data, std::size_t size, std::size_t most,
                                    unsigned int seed) {
    return lumora_fuzz::MutateDocument(data, size, most, seed, lumora_fuzz::MutateServerFrames);
}
