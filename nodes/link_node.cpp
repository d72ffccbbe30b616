#include "nodes/link_node.h"

#include <algorithm>
#include <stdexcept>

#include "base/json.h"
#include "lumora.h"

namespace lumora_nodes {

namespace {

const char SERVICE_INFO_KEY[] = "ServiceInfo";
const char SERVICE_INFO_VALUE[] = "Lum_RA";
const char VERSION_KEY[] = "GetVersion";
constexpr std::size_t MAX_SERVICES = 8;
constexpr std::size_t MAX_TRANSPORT = 5;
constexpr unsigned BUFFER_SIZE = 1024;

// Of the one node. Events come on the platform's thread until that node is gone.
std::function<void(NodeEvent)> g_onEvent;
const char* g_type = nullptr;

extern "C" {

static int OnDeviceEvent(NotifyDeviceInfo* info) {
    try {
        g_onEvent({info->event == NOTIFY_DEVICE_ADDED, info->addr, info->port, info->devType});
        return 0;
    } catch (...) {
        return -1;  // the caller is a C library
    }
}

// This node only asks, so it refuses all requests.
static int RefuseGet(AppResource*, const RemoteEndpoint*, const char*, char*, unsigned int) { return -1; }
static int Refuse(AppResource*, const RemoteEndpoint*, const char*, const char*, unsigned int) { return -1; }
static const char* Descriptor(AppResource*) { return g_type; }

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

bool IsServiceName(const std::string& name) { return !name.empty() && name.size() < LUM_NAME_SIZE; }

bool HasService(const std::vector<Service>& services, const std::string& name) {
    return std::any_of(services.begin(), services.end(),
                       [&](const Service& one) { return one.name == name; });
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

LinkNode::LinkNode(std::function<void(NodeEvent event)> onEvent, const char* type)
    : mResource{RefuseGet, Refuse, Refuse, Refuse, Descriptor}, mPlatform(GetLinkPlatform()) {
    g_onEvent = std::move(onEvent);
    g_type = type;
    // The order that the platform demands: Init, RegisterResource, Run.
    if (mPlatform == nullptr || mPlatform->Init(mPlatform.get()) != 0 ||
        mPlatform->RegisterResource(mPlatform.get(), &mResource, OnDeviceEvent) != 0 ||
        mPlatform->Run(mPlatform.get()) != 0) {
        throw std::runtime_error("the link platform does not start");
    }
}

LinkNode::~LinkNode() { Leave(); }

void LinkNode::Leave() { mPlatform->Exit(mPlatform.get()); }

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
        std::optional<Service> service = ParseService(entry);
        if (service && IsServiceName(service->name) && !HasService(services, service->name)) {
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

std::string TransportName(int transport) {
    static const char* const NAMES[] = {"none", "udp", "tcp", "rtp", "4", "5"};
    const bool known = transport >= 0 && static_cast<std::size_t>(transport) <= MAX_TRANSPORT;
    return known ? NAMES[transport] : std::to_string(transport);
}

}  // namespace lumora_nodes
