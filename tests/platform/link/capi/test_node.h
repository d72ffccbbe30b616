// A handle on the platform with a resource whose handlers a test supplies, and what was called.
#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "link_platform.h"

namespace lumora_link::test {

using std::chrono::milliseconds;

struct Request {
    std::string method;
    std::string requester;  // address:port
    std::string key;
    std::string value;

    bool operator==(const Request& other) const {
        return method == other.method && key == other.key && value == other.value;
    }
};

struct Event {
    bool added = false;
    unsigned id = 0;
    std::string endpoint;
    std::string deviceType;
};

class TestNode {
public:
    using Handler = std::function<int(const Request& request, std::string& reply)>;

    // Not started yet. At most 16 live at a time.
    explicit TestNode(std::string deviceType);
    ~TestNode();
    TestNode(const TestNode&) = delete;
    TestNode& operator=(const TestNode&) = delete;

    // To be set before Run; answers GETs with their value by default.
    Handler handler;

    // Init, RegisterResource and Run.
    bool Start();
    void Free();
    LinkPlatform* Platform() { return mPlatform; }
    AppResource* Resource() { return &mRecord.resource; }
    DeviceEventFunction EventFunction() const;

    std::vector<Request> Requests();
    std::vector<Event> Events();

    int OnRequest(Request request, std::string& reply);
    void OnEvent(const Event& event);
    const std::string& DeviceType() const { return mDeviceType; }

private:
    struct Record {
        AppResource resource;
        TestNode* owner;
    };
    const std::string mDeviceType;
    Record mRecord;
    std::size_t mSlot = 0;
    LinkPlatform* mPlatform = nullptr;
    std::mutex mMutex;
    std::vector<Request> mRequests;
    std::vector<Event> mEvents;
};

// A chain of proxies that frees what the test does not.
class Found {
public:
    Found(TestNode& node, const std::string& deviceType);
    ~Found();
    Found(const Found&) = delete;
    Found& operator=(const Found&) = delete;

    std::size_t Size() const { return mProxies.size(); }
    AppResourceProxy* At(std::size_t place) { return mProxies.at(place); }
    std::vector<std::string> Endpoints() const;
    milliseconds Time() const { return mTime; }
    // The test frees them itself.
    std::vector<AppResourceProxy*> Release();

private:
    std::vector<AppResourceProxy*> mProxies;
    milliseconds mTime{};
};

struct GetResult {
    int result = 0;
    std::string text;
};
GetResult Get(AppResourceProxy* proxy, const std::string& key, const std::string& value);
int Put(AppResourceProxy* proxy, const std::string& key, const std::string& value);
int Post(AppResourceProxy* proxy, const std::string& key, const std::string& value);
int Delete(AppResourceProxy* proxy, const std::string& key, const std::string& value);

// Of this process.
std::size_t OpenDescriptors();

}  // namespace lumora_link::test
