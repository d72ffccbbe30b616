// A link platform in the process. Linking this defines the platform's four functions.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "link_platform.h"

namespace lumora_test {

// A request that reached a remote device.
struct Request {
    std::string verb;  // "Get", "Put", "Post", "Delete"
    std::string key;
    std::string value;

    bool operator==(const Request& other) const {
        return verb == other.verb && key == other.key && value == other.value;
    }
};

// A remote device that a search finds.
struct FakeDevice {
    std::string address = "127.0.0.1";
    int port = 5683;
    // Answers a request: the result, and for a Get the reply. Called on the requesting thread.
    std::function<int(const Request& request, std::string& reply)> answer = [](const Request&, std::string&) {
        return 0;
    };
};

// What a handler of the local resource answered.
struct Answer {
    int result = -1;
    std::string reply;
};

// The state of the fake, made anew by each test: all handles of the process share it.
class FakePlatform {
public:
    FakePlatform();
    ~FakePlatform();
    FakePlatform(const FakePlatform&) = delete;
    FakePlatform& operator=(const FakePlatform&) = delete;

    // ---- What the platform does when it is called ----
    bool givesHandles = true;
    // Changes the tables that it gives out, each a copy of its own.
    std::function<void(LinkPlatform& table)> onPlatformTable = [](LinkPlatform&) {};
    std::function<void(AppResourceProxy& table, int index)> onProxyTable = [](AppResourceProxy&, int) {};
    int initResult = 0;
    int registerResult = 0;
    int runResult = 0;
    int exitResult = 0;
    std::function<void()> onExit = [] {};  // runs inside Exit
    std::function<void()> onFree = [] {};  // runs inside FreeAppResourceProxy2
    std::vector<FakeDevice> devices;       // what every search finds, in this order

    // ---- What has been called ----
    std::vector<Request> Requests() const;  // of all devices, in order
    void ClearRequests();
    std::vector<std::string> Searches() const;  // the texts of FindResource
    std::vector<std::string> Calls() const;  // "GetLinkPlatform", "Init", "RegisterResource", "Run", "Exit",
                                             // "SetDebugLevel 3", "FindResource camera", "FreeLinkPlatform"
    int CallCount(const std::string& call) const;
    int LiveProxies() const;  // found and not yet freed
    int FreedProxies() const;
    int LiveHandles() const;

    // ---- What the platform does of its own accord, on the calling thread ----
    AppResource* Resource() const;  // registered last, or null
    int SendEvent(unsigned int event, unsigned int id, const std::string& addr, int port,
                  const std::string& devType);
    int SendNullEvent();
    Answer Get(const std::string& key, const std::string& value = "", unsigned int bufferSize = 1024,
               const std::string& requester = "127.0.0.1", int requesterPort = 5683);
    int Put(const std::string& key, const std::string& value = "");
    int Post(const std::string& key, const std::string& value = "");
    int Delete(const std::string& key, const std::string& value = "");
};

// A device that describes itself by this service-information document and accepts everything else.
FakeDevice DescribedDevice(const std::string& serviceInfo, const std::string& address = "127.0.0.1",
                           int port = 5683);
// {"DevServiceType":type,"ServiceNum":1,"service0":{"Name":name,...}}
std::string ServiceInfo(const std::string& type, const std::string& name = "face");

}  // namespace lumora_test
