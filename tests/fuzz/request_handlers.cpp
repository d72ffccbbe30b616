// The five handlers that the platform calls, with whatever a requester may send, over a device that serves.
#include <cstring>
#include <memory>
#include <vector>

#include "link/descriptor_registry.h"
#include "protocol/control_documents.h"
#include "protocol/data_frame.h"
#include "server/server_module.h"
#include "tests/fuzz/mutation.h"
#include "tests/fuzz/request.h"
#include "tests/fuzz/require.h"
#include "tests/server/fake_transports.h"
#include "tests/support/fake_platform.h"

using lumora_fuzz::Request;
using lumora_fuzz::RequestKind;
using lumora_fuzz::Require;
using lumoraAiModule::LumoraServerModule;

namespace {

int OnCommand(const char* command, const char* param) {
    Require(std::strlen(command) < 1024 && std::strlen(param) <= LUM_MAX_CMD_LENGTH, "commands are bounded");
    return 0;
}

int OnNotify(int, int event, LUM_SUBSCRIBE_SERVICE_S subscription) {
    Require(event == LUM_NOTIFY_SUBSCRIBED || event == LUM_NOTIFY_UNSUBSCRIBED, "the event is one");
    const std::string name(subscription.serviceName, strnlen(subscription.serviceName, LUM_NAME_SIZE));
    Require(name == "face" || name == "text", "the service is the device's");
    return 0;
}

int OnData(int, const char*, unsigned int) { return 0; }

class Device {
public:
    Device() : mModule("camera", lumora_test::Sources()) {
        Require(mModule.InitLumoraModule() == 0, "the module starts");
        LUM_DEVICE_INFO_S info = {2, "camera", {}, OnCommand, OnNotify, OnData};
        info.serviceInfo[0] = {1000, "face", LUM_TRANSPORT_TCP};
        info.serviceInfo[1] = {1000, "text", LUM_TRANSPORT_TCP};
        Require(mModule.RegisterLocalDeviceInfo(&info) == 0, "the services are taken");
    }
    ~Device() { mModule.DeInitLumoraModule(); }
    Device(const Device&) = delete;
    Device& operator=(const Device&) = delete;

    void Play(RequestKind kind, const Request& request) {
        AppResource* resource = mPlatform.Resource();
        const char* key = request.key.c_str();
        const char* value = request.value.c_str();
        switch (kind) {
            case RequestKind::GET:
                Get(request);
                break;
            case RequestKind::PUT:
                resource->DoPUT(resource, &request.requester, key, value, request.size);
                break;
            case RequestKind::POST:
                resource->DoPOST(resource, &request.requester, key, value, request.size);
                break;
            case RequestKind::DELETE:
                resource->DoDELETE(resource, &request.requester, key, value, request.size);
                break;
            case RequestKind::DESCRIBE:
                Require(std::strcmp(resource->DoGetDescriptor(resource), "camera") == 0,
                        "the type is the type");
                break;
            case RequestKind::REMOVED:
                mPlatform.SendEvent(NOTIFY_DEVICE_REMOVED, 1, request.value, request.requester.port, "phone");
                break;
            case RequestKind::SEND:
                Send(request);
                break;
            case RequestKind::COUNT:
                break;
        }
    }

private:
    // The buffer holds the value and is as large as is said: one byte more is noticed.
    void Get(const Request& request) {
        AppResource* resource = mPlatform.Resource();
        const std::size_t size = std::max<std::size_t>(request.size, request.value.size() + 1);
        std::vector<char> buffer(size);
        std::copy(request.value.begin(), request.value.end(), buffer.begin());
        const int result = resource->DoGET(resource, &request.requester, request.key.c_str(), buffer.data(),
                                           static_cast<unsigned int>(size));
        Require(result != 0 || std::memchr(buffer.data(), '\0', size) != nullptr, "the reply is terminated");
    }

    // A frame that leaves can be read by a client.
    void Send(const Request& request) {
        if (request.value.empty()) {
            return;
        }
        const auto length = static_cast<unsigned int>(request.value.size());
        mTransports.next->sent.clear();
        unsigned int sent = 0;
        mModule.SendDataToClient(request.key, request.value.data(), length, &sent, 0);
        for (std::string frame : mTransports.next->sent) {
            lumoraAiModule::ServerFrame fields;
            const auto frameLength = static_cast<unsigned int>(frame.size());
            const auto damage = lumoraAiModule::ReadServerFrame(frame.data(), frameLength, fields);
            const bool crowded = fields.clientNum > lumoraAiModule::MAX_FRAME_CLIENTS;
            Require(damage == lumoraAiModule::FrameDamage::NONE || crowded || frameLength < 10,
                    "it can be read");
            Require(damage != lumoraAiModule::FrameDamage::NONE ||
                        std::string(fields.payload, fields.payloadLen) == request.value,
                    "and carries what was sent");
        }
    }

    lumora_test::FakePlatform mPlatform;
    lumora_test::FakeTransports mTransports;
    LumoraServerModule mModule;
};

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Device device;
    for (const lumora_fuzz::Record& record : lumora_fuzz::ReadScript(data, size)) {
        const auto kinds = static_cast<unsigned int>(RequestKind::COUNT);
        device.Play(static_cast<RequestKind>(record.kind % kinds), lumora_fuzz::ReadRequest(record.bytes));
    }
    return 0;
}

std::size_t LLVMFuzzerCustomMutator(std::uint8_t* data, std::size_t size, std::size_t most,
                                    unsigned int seed) {
    return lumora_fuzz::MutateScriptInput(
        data, size, most, seed, static_cast<std::size_t>(RequestKind::COUNT), lumora_fuzz::MutateRequest);
}
