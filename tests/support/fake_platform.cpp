#include "tests/support/fake_platform.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstring>
#include <mutex>

#include "tests/support/system_faults.h"

namespace lumora_test {

namespace {

std::mutex g_mutex;  // guards the records below, and is held for a moment only
FakePlatform* g_platform = nullptr;
std::vector<std::string> g_calls;
std::vector<std::string> g_searches;
std::vector<Request> g_requests;
int g_liveHandles = 0;
int g_liveProxies = 0;
int g_freedProxies = 0;
AppResource* g_resource = nullptr;
AppResource g_handlers = {};  // copied while registering, as a platform must
DeviceEventFunction g_onEvent = nullptr;

struct Proxy {
    AppResourceProxy table;
    FakeDevice device;
    Proxy* next;
};

Proxy& Self(AppResourceProxy* proxy) { return *reinterpret_cast<Proxy*>(proxy); }

void Record(const char* call) {
    const AllocationFaultsPaused paused;
    const std::lock_guard<std::mutex> lock(g_mutex);
    g_calls.push_back(call);
}

int Send(AppResourceProxy* proxy, const char* verb, const char* key, const char* value, std::string& reply) {
    const AllocationFaultsPaused paused;
    const Request request{verb, key, value};
    {
        const std::lock_guard<std::mutex> lock(g_mutex);
        g_requests.push_back(request);
    }
    return Self(proxy).device.answer(request, reply);
}

int ProxyGet(AppResourceProxy* proxy, const char* key, char* buffer, unsigned int capacity) {
    const AllocationFaultsPaused paused;
    std::string reply;
    const int ret = Send(proxy, "Get", key, buffer, reply);
    if (ret == 0) {
        const size_t length = std::min<size_t>(reply.size(), capacity);
        std::memcpy(buffer, reply.data(), length);
        buffer[length] = '\0';
    }
    return ret;
}

int ProxyPut(AppResourceProxy* proxy, const char* key, const char* value, unsigned int length) {
    const AllocationFaultsPaused paused;
    std::string unused;
    return Send(proxy, "Put", key, std::string(value, length).c_str(), unused);
}

int ProxyPost(AppResourceProxy* proxy, const char* key, const char* value, unsigned int length) {
    const AllocationFaultsPaused paused;
    std::string unused;
    return Send(proxy, "Post", key, std::string(value, length).c_str(), unused);
}

int ProxyDelete(AppResourceProxy* proxy, const char* key, const char* value, unsigned int length) {
    const AllocationFaultsPaused paused;
    std::string unused;
    return Send(proxy, "Delete", key, std::string(value, length).c_str(), unused);
}

const char* ProxyAddress(AppResourceProxy* proxy) { return Self(proxy).device.address.c_str(); }
int ProxyPort(AppResourceProxy* proxy) { return Self(proxy).device.port; }

int Init(LinkPlatform*) {
    Record("Init");
    return g_platform->initResult;
}

int SetDebugLevel(LinkPlatform*, int level) {
    const AllocationFaultsPaused paused;
    Record(("SetDebugLevel " + std::to_string(level)).c_str());
    return 0;
}

int RegisterResource(LinkPlatform*, AppResource* resource, DeviceEventFunction onEvent) {
    Record("RegisterResource");
    const std::lock_guard<std::mutex> lock(g_mutex);
    g_resource = resource;
    g_handlers = *resource;
    g_onEvent = onEvent;
    return g_platform->registerResult;
}

int Run(LinkPlatform*) {
    Record("Run");
    return g_platform->runResult;
}

int Exit(LinkPlatform*) {
    Record("Exit");
    g_platform->onExit();
    return g_platform->exitResult;
}

AppResourceProxy* FindResource(LinkPlatform*, const char* devType) {
    const AllocationFaultsPaused paused;
    Record((std::string("FindResource ") + devType).c_str());
    const std::lock_guard<std::mutex> lock(g_mutex);
    g_searches.push_back(devType);
    Proxy* first = nullptr;
    for (auto device = g_platform->devices.rbegin(); device != g_platform->devices.rend(); ++device) {
        const AppResourceProxy table = {ProxyGet, ProxyPut,     ProxyPost, ProxyDelete,
                                        nullptr,  ProxyAddress, ProxyPort};
        first = std::make_unique<Proxy>(Proxy{table, *device, first}).release();
        g_platform->onProxyTable(first->table, static_cast<int>(g_platform->devices.rend() - device) - 1);
        ++g_liveProxies;
    }
    return first != nullptr ? &first->table : nullptr;
}

RemoteEndpoint Endpoint(const std::string& address, int port) {
    RemoteEndpoint endpoint = {};
    inet_pton(AF_INET, address.c_str(), &endpoint.address);
    endpoint.port = port;
    return endpoint;
}

AppResource Handlers() {
    const std::lock_guard<std::mutex> lock(g_mutex);
    return g_handlers;
}

DeviceEventFunction EventFunction() {
    const std::lock_guard<std::mutex> lock(g_mutex);
    return g_onEvent;
}

}  // namespace

FakePlatform::FakePlatform() {
    const std::lock_guard<std::mutex> lock(g_mutex);
    g_platform = this;
    g_calls.clear();
    g_searches.clear();
    g_requests.clear();
    g_liveHandles = g_liveProxies = g_freedProxies = 0;
    g_resource = nullptr;
    g_handlers = {};
    g_onEvent = nullptr;
}

FakePlatform::~FakePlatform() {
    const std::lock_guard<std::mutex> lock(g_mutex);
    g_platform = nullptr;
}

std::vector<Request> FakePlatform::Requests() const {
    const std::lock_guard<std::mutex> lock(g_mutex);
    return g_requests;
}

void FakePlatform::ClearRequests() {
    const std::lock_guard<std::mutex> lock(g_mutex);
    g_requests.clear();
}

std::vector<std::string> FakePlatform::Searches() const {
    const std::lock_guard<std::mutex> lock(g_mutex);
    return g_searches;
}

std::vector<std::string> FakePlatform::Calls() const {
    const std::lock_guard<std::mutex> lock(g_mutex);
    return g_calls;
}

int FakePlatform::CallCount(const std::string& call) const {
    const std::vector<std::string> calls = Calls();
    return static_cast<int>(std::count(calls.begin(), calls.end(), call));
}

int FakePlatform::LiveProxies() const {
    const std::lock_guard<std::mutex> lock(g_mutex);
    return g_liveProxies;
}

int FakePlatform::FreedProxies() const {
    const std::lock_guard<std::mutex> lock(g_mutex);
    return g_freedProxies;
}

int FakePlatform::LiveHandles() const {
    const std::lock_guard<std::mutex> lock(g_mutex);
    return g_liveHandles;
}

AppResource* FakePlatform::Resource() const {
    const std::lock_guard<std::mutex> lock(g_mutex);
    return g_resource;
}

int FakePlatform::SendEvent(unsigned int event, unsigned int id, const std::string& addr, int port,
                            const std::string& devType) {
    NotifyDeviceInfo info = {event, id, addr.c_str(), port, devType.c_str()};
    return EventFunction()(&info);
}

int FakePlatform::SendNullEvent() { return EventFunction()(nullptr); }

Answer FakePlatform::Get(const std::string& key, const std::string& value, unsigned int bufferSize,
                         const std::string& requester, int requesterPort) {
    std::vector<char> buffer(std::max<size_t>(bufferSize, value.size() + 1));
    std::memcpy(buffer.data(), value.c_str(), value.size() + 1);
    const RemoteEndpoint endpoint = Endpoint(requester, requesterPort);
    Answer answer;
    answer.result = Handlers().DoGET(Resource(), &endpoint, key.c_str(), buffer.data(), bufferSize);
    if (answer.result == 0) {
        answer.reply = buffer.data();
    }
    return answer;
}

int FakePlatform::Put(const std::string& key, const std::string& value) {
    const RemoteEndpoint endpoint = Endpoint("127.0.0.1", 5683);
    return Handlers().DoPUT(Resource(), &endpoint, key.c_str(), value.c_str(),
                            static_cast<unsigned int>(value.size()));
}

int FakePlatform::Post(const std::string& key, const std::string& value) {
    const RemoteEndpoint endpoint = Endpoint("127.0.0.1", 5683);
    return Handlers().DoPOST(Resource(), &endpoint, key.c_str(), value.c_str(),
                             static_cast<unsigned int>(value.size()));
}

int FakePlatform::Delete(const std::string& key, const std::string& value) {
    const RemoteEndpoint endpoint = Endpoint("127.0.0.1", 5683);
    return Handlers().DoDELETE(Resource(), &endpoint, key.c_str(), value.c_str(),
                               static_cast<unsigned int>(value.size()));
}

FakeDevice DescribedDevice(const std::string& serviceInfo, const std::string& address, int port) {
    FakeDevice device;
    device.address = address;
    device.port = port;
    device.answer = [serviceInfo](const Request& request, std::string& reply) {
        if (request.key == "ServiceInfo") {
            reply = serviceInfo;
        } else if (request.key == "GetVersion") {
            reply = "1.1.1";
        } else if (request.key == "TransStatus") {
            reply = "free";
        }
        return 0;
    };
    return device;
}

std::string ServiceInfo(const std::string& type, const std::string& name) {
    return R"({"DevServiceType":")" + type + R"(","ServiceNum":1,"service0":{"Name":")" + name +
           R"(","transport":2,"output-len-bytes":1024}})";
}

}  // namespace lumora_test

using namespace lumora_test;

extern "C" LinkPlatform* GetLinkPlatform(void) {
    const AllocationFaultsPaused paused;
    Record("GetLinkPlatform");
    const std::lock_guard<std::mutex> lock(g_mutex);
    if (g_platform == nullptr || !g_platform->givesHandles) {
        return nullptr;
    }
    ++g_liveHandles;
    auto table = std::make_unique<LinkPlatform>(
        LinkPlatform{Init, nullptr, SetDebugLevel, RegisterResource, nullptr, Run, Exit, FindResource});
    g_platform->onPlatformTable(*table);
    return table.release();
}

extern "C" void FreeLinkPlatform(LinkPlatform* platform) {
    const std::unique_ptr<LinkPlatform> owner(platform);
    Record("FreeLinkPlatform");
    const std::lock_guard<std::mutex> lock(g_mutex);
    --g_liveHandles;
}

extern "C" AppResourceProxy* GetNextAppResourceProxy(AppResourceProxy* proxy) {
    Proxy* next = Self(proxy).next;
    return next != nullptr ? &next->table : nullptr;
}

extern "C" void FreeAppResourceProxy2(AppResourceProxy* proxy) {
    if (g_platform != nullptr) {
        g_platform->onFree();
    }
    const std::unique_ptr<Proxy> owner(&Self(proxy));
    const std::lock_guard<std::mutex> lock(g_mutex);
    --g_liveProxies;
    ++g_freedProxies;
}
