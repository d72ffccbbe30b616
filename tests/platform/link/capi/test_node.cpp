#include "tests/platform/link/capi/test_node.h"

#include <arpa/inet.h>

#include <array>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <utility>

namespace lumora_link::test {

namespace {

constexpr std::size_t SLOTS = 16;

// Device events carry no context, so each node of a test has a function of its own.
std::mutex slotMutex;
std::array<TestNode*, SLOTS> slots;

template <std::size_t Slot>
int OnDeviceEvent(NotifyDeviceInfo* info) {
    TestNode* node = nullptr;
    {
        const std::lock_guard<std::mutex> lock(slotMutex);
        node = slots[Slot];
    }
    if (node != nullptr) {
        node->OnEvent({info->event == NOTIFY_DEVICE_ADDED, info->id,
                       std::string(info->addr) + ":" + std::to_string(info->port), info->devType});
    }
    return 0;
}

template <std::size_t... Slot>
constexpr std::array<DeviceEventFunction, SLOTS> MakeFunctions(std::index_sequence<Slot...>) {
    return {OnDeviceEvent<Slot>...};
}
constexpr std::array<DeviceEventFunction, SLOTS> EVENT_FUNCTIONS =
    MakeFunctions(std::make_index_sequence<SLOTS>());

struct ResourceWithOwner {
    AppResource resource;
    TestNode* owner;
};

TestNode* OwnerOf(AppResource* resource) { return reinterpret_cast<ResourceWithOwner*>(resource)->owner; }

std::string TextOf(const RemoteEndpoint* requester) {
    char text[INET_ADDRSTRLEN] = {};
    inet_ntop(AF_INET, &requester->address, text, sizeof text);
    return std::string(text) + ":" + std::to_string(requester->port);
}

int OnGet(AppResource* resource, const RemoteEndpoint* requester, const char* key, char* buffer,
          unsigned size) {
    std::string reply;
    const int result = OwnerOf(resource)->OnRequest({"GET", TextOf(requester), key, buffer}, reply);
    if (reply.size() < size) {
        std::memcpy(buffer, reply.c_str(), reply.size() + 1);
    }
    return result;
}

int OnChange(const char* method, AppResource* resource, const RemoteEndpoint* requester, const char* key,
             const char* value, unsigned length) {
    std::string reply;
    if (value[length] != '\0') {
        throw std::logic_error("a value without its terminator");
    }
    return OwnerOf(resource)->OnRequest({method, TextOf(requester), key, std::string(value, length)}, reply);
}

int OnPut(AppResource* resource, const RemoteEndpoint* requester, const char* key, const char* value,
          unsigned length) {
    return OnChange("PUT", resource, requester, key, value, length);
}

int OnPost(AppResource* resource, const RemoteEndpoint* requester, const char* key, const char* value,
           unsigned length) {
    return OnChange("POST", resource, requester, key, value, length);
}

int OnDelete(AppResource* resource, const RemoteEndpoint* requester, const char* key, const char* value,
             unsigned length) {
    return OnChange("DELETE", resource, requester, key, value, length);
}

const char* Describe(AppResource* resource) { return OwnerOf(resource)->DeviceType().c_str(); }

}  // namespace

TestNode::TestNode(std::string deviceType) : mDeviceType(std::move(deviceType)) {
    mRecord = {{OnGet, OnPut, OnPost, OnDelete, Describe}, this};
    mPlatform = GetLinkPlatform();
    const std::lock_guard<std::mutex> lock(slotMutex);
    while (slots.at(mSlot) != nullptr) {
        ++mSlot;
    }
    slots[mSlot] = this;
}

TestNode::~TestNode() {
    Free();
    const std::lock_guard<std::mutex> lock(slotMutex);
    slots[mSlot] = nullptr;
}

bool TestNode::Start() {
    return mPlatform->Init(mPlatform) == 0 &&
           mPlatform->RegisterResource(mPlatform, &mRecord.resource, EventFunction()) == 0 &&
           mPlatform->Run(mPlatform) == 0;
}

void TestNode::Free() {
    FreeLinkPlatform(mPlatform);
    mPlatform = nullptr;
}

DeviceEventFunction TestNode::EventFunction() const { return EVENT_FUNCTIONS[mSlot]; }

std::vector<Request> TestNode::Requests() {
    const std::lock_guard<std::mutex> lock(mMutex);
    return mRequests;
}

std::vector<Event> TestNode::Events() {
    const std::lock_guard<std::mutex> lock(mMutex);
    return mEvents;
}

int TestNode::OnRequest(Request request, std::string& reply) {
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        mRequests.push_back(request);
    }
    reply = request.value;
    return handler ? handler(request, reply) : 0;
}

void TestNode::OnEvent(const Event& event) {
    const std::lock_guard<std::mutex> lock(mMutex);
    mEvents.push_back(event);
}

Found::Found(TestNode& node, const std::string& deviceType) {
    const auto start = std::chrono::steady_clock::now();
    LinkPlatform* platform = node.Platform();
    AppResourceProxy* first = platform->FindResource(platform, deviceType.c_str());
    mTime = std::chrono::duration_cast<milliseconds>(std::chrono::steady_clock::now() - start);
    for (AppResourceProxy* proxy = first; proxy != nullptr; proxy = GetNextAppResourceProxy(proxy)) {
        mProxies.push_back(proxy);
    }
}

Found::~Found() {
    for (AppResourceProxy* proxy : mProxies) {
        FreeAppResourceProxy2(proxy);
    }
}

std::vector<std::string> Found::Endpoints() const {
    std::vector<std::string> endpoints;
    for (AppResourceProxy* proxy : mProxies) {
        endpoints.push_back(std::string(proxy->GetAddress(proxy)) + ":" +
                            std::to_string(proxy->GetPort(proxy)));
    }
    return endpoints;
}

std::vector<AppResourceProxy*> Found::Release() { return std::exchange(mProxies, {}); }

GetResult Get(AppResourceProxy* proxy, const std::string& key, const std::string& value) {
    char buffer[1024] = {};
    std::memcpy(buffer, value.data(), value.size());
    const int result = proxy->Get(proxy, key.c_str(), buffer, sizeof buffer - 1);
    return {result, buffer};
}

int Put(AppResourceProxy* proxy, const std::string& key, const std::string& value) {
    return proxy->Put(proxy, key.c_str(), value.c_str(), static_cast<unsigned>(value.size()));
}

int Post(AppResourceProxy* proxy, const std::string& key, const std::string& value) {
    return proxy->Post(proxy, key.c_str(), value.c_str(), static_cast<unsigned>(value.size()));
}

int Delete(AppResourceProxy* proxy, const std::string& key, const std::string& value) {
    return proxy->Delete(proxy, key.c_str(), value.c_str(), static_cast<unsigned>(value.size()));
}

std::size_t OpenDescriptors() {
    const std::filesystem::directory_iterator first("/proc/self/fd");
    return static_cast<std::size_t>(std::distance(first, std::filesystem::directory_iterator()));
}

}  // namespace lumora_link::test
