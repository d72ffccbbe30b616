#include "tools/lumora/session/link_node.h"

#include <iterator>
#include <set>

#include "base/json.h"
#include "tools/lumora/os/signals.h"
#include "tools/lumora/session/platform_front.h"
#include "tools/lumora/terminal/failure.h"
#include "tools/lumora/terminal/json.h"

namespace lumora_cli {

namespace {

const char SERVICE_INFO_KEY[] = "ServiceInfo";
const char SERVICE_INFO_VALUE[] = "Lum_RA";
const char VERSION_KEY[] = "GetVersion";
constexpr std::size_t MAX_SERVICES = 8;
constexpr std::size_t MAX_TRANSPORT = 5;
constexpr unsigned BUFFER_SIZE = 1024;

// Events come on the platform's thread until the last node is gone.
Inbox<DeviceEvent>& EventInbox() {
    static Inbox<DeviceEvent> inbox;
    return inbox;
}

extern "C" {

static int OnDeviceEvent(NotifyDeviceInfo* info) {
    try {
        EventInbox().Put({info->event == NOTIFY_DEVICE_ADDED, info->addr, info->port, info->devType});
        return 0;
    } catch (...) {
        return -1;  // the caller is a C library
    }
}

// This node only searches, so it refuses all requests.
static int RefuseGet(AppResource*, const RemoteEndpoint*, const char*, char*, unsigned int) { return -1; }
static int Refuse(AppResource*, const RemoteEndpoint*, const char*, const char*, unsigned int) { return -1; }
static const char* NoDescriptor(AppResource*) { return nullptr; }

}  // extern "C"

std::optional<Service> ParseService(const cJSON* entry) {
    const cJSON* name = cJSON_GetObjectItem(entry, "Name");
    const cJSON* transport = cJSON_GetObjectItem(entry, "transport");
    const cJSON* output = cJSON_GetObjectItem(entry, "output-len-bytes");
    if (!cJSON_IsString(name) || !cJSON_IsNumber(transport)) {
        return std::nullopt;
    }
    // The document comes from the network: a negative length counts as any.
    const int bytes = cJSON_IsNumber(output) ? output->valueint : 0;
    return Service{name->valuestring, transport->valueint, bytes > 0 ? static_cast<unsigned>(bytes) : 0};
}

std::string ServiceJson(const Service& service) {
    return JsonObject()
        .Add("name", service.name)
        .Add("transport", TransportName(service.transport))
        .Add("outputBytes", service.outputBytes)
        .Text();
}

}  // namespace

// ---- RemoteDevice

std::string RemoteDevice::Address() const { return mProxy->GetAddress(mProxy.get()); }
int RemoteDevice::Port() const { return mProxy->GetPort(mProxy.get()); }

std::optional<std::string> RemoteDevice::Ask(const std::string& key, const std::string& value) const {
    char buffer[BUFFER_SIZE] = {};
    // One buffer carries the value to the device and the reply back. The platform wants its size without the
    // terminator.
    value.copy(buffer, BUFFER_SIZE - 1);
    if (mProxy->Get(mProxy.get(), key.c_str(), buffer, BUFFER_SIZE - 1) != 0) {
        return std::nullopt;
    }
    buffer[BUFFER_SIZE - 1] = '\0';
    return buffer;
}

// ---- LinkNode

LinkNode::LinkNode()
    : mResource{RefuseGet, Refuse, Refuse, Refuse, NoDescriptor}, mPlatform(GetLinkPlatform()) {
    // The order that the platform demands: Init, RegisterResource, Run.
    if (mPlatform == nullptr || mPlatform->Init(mPlatform.get()) != 0 ||
        mPlatform->RegisterResource(mPlatform.get(), &mResource, OnDeviceEvent) != 0 ||
        mPlatform->Run(mPlatform.get()) != 0) {
        throw Failure(EXIT_FAILED, WithCause("the link platform does not start"),
                      "lumora doctor looks for what is wrong");
    }
}

LinkNode::~LinkNode() { mPlatform->Exit(mPlatform.get()); }

Inbox<DeviceEvent>& LinkNode::Events() { return EventInbox(); }

std::vector<RemoteDevice> LinkNode::Find(const std::string& type) {
    std::vector<RemoteDevice> devices;
    // Blocks for the platform's search time. Each element owns itself; RemoteDevice frees it.
    AppResourceProxy* next = mPlatform->FindResource(mPlatform.get(), type.c_str());
    while (next != nullptr) {
        devices.emplace_back(next);
        next = GetNextAppResourceProxy(next);
    }
    return devices;
}

// ---- What they say

std::optional<std::vector<Service>> ParseServices(const std::string& document) {
    const lumora::JsonTree root = lumora::ParseJson(document);
    if (!cJSON_IsNumber(cJSON_GetObjectItem(root.get(), "ServiceNum"))) {
        return std::nullopt;
    }
    std::vector<Service> services;
    // The document numbers its services: service0 to service7. Gaps are skipped.
    for (std::size_t i = 0; i < MAX_SERVICES; ++i) {
        const cJSON* entry = cJSON_GetObjectItem(root.get(), ("service" + std::to_string(i)).c_str());
        if (std::optional<Service> service = ParseService(entry)) {
            services.push_back(std::move(*service));
        }
    }
    return services;
}

FoundDevice Describe(const RemoteDevice& device, const std::string& type) {
    FoundDevice found = {device.Address(), device.Port(), type, false, {}, ""};
    const std::optional<std::string> document = device.Ask(SERVICE_INFO_KEY, SERVICE_INFO_VALUE);
    if (std::optional<std::vector<Service>> services = ParseServices(document.value_or(""))) {
        found.answers = true;
        found.services = std::move(*services);
        found.version = device.Ask(VERSION_KEY).value_or("");
    }
    return found;
}

std::vector<FoundDevice> FindDevices(LinkNode& node, const std::string& type,
                                     std::chrono::milliseconds patience) {
    constexpr int PAUSE_MS = 100;
    const Deadline end = In(patience);
    std::vector<FoundDevice> found;
    while (true) {
        for (const RemoteDevice& device : node.Find(type)) {
            ThrowWhenStopped();
            found.push_back(Describe(device, type));
        }
        ThrowWhenStopped();
        // One search may miss a device that has just started, so it is repeated until the deadline.
        if (!found.empty() || Clock::now() >= end || !PauseUnlessStopped(PAUSE_MS)) {
            ThrowWhenStopped();
            return found;
        }
    }
}

std::vector<FoundDevice> FindAllDevices(LinkNode& node, std::chrono::milliseconds time) {
    // The platform searches by type only. Types become known by the hello that each node repeats, so this
    // listens first and then searches each type once.
    std::set<std::string> types;
    const Deadline end = In(time);
    while (const std::optional<DeviceEvent> event = node.Events().Take(end)) {
        if (event->added && !event->type.empty()) {
            types.insert(event->type);
        }
    }
    std::vector<FoundDevice> all;
    for (const std::string& type : types) {
        ThrowWhenStopped();
        std::vector<FoundDevice> some = FindDevices(node, type, std::chrono::milliseconds(0));
        std::move(some.begin(), some.end(), std::back_inserter(all));
    }
    ThrowWhenStopped();
    return all;
}

std::string TransportName(int transport) {
    static const char* const NAMES[] = {"none", "udp", "tcp", "rtp", "4", "5"};
    const bool known = transport >= 0 && static_cast<std::size_t>(transport) <= MAX_TRANSPORT;
    return known ? NAMES[transport] : std::to_string(transport);
}

std::string ToJson(const FoundDevice& device) {
    return JsonObject()
        .Add("address", device.address)
        .Add("port", device.port)
        .Add("type", device.type)
        .Add("answers", device.answers)
        .Add("version", device.version)
        .AddRaw("services", JsonArray(device.services, ServiceJson))
        .Text();
}

std::string ToJson(const std::vector<FoundDevice>& devices) {
    return JsonArray(devices, [](const FoundDevice& device) { return ToJson(device); });
}

}  // namespace lumora_cli
