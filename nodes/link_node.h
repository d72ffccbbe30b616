// The network as the link platform shows it: a node that looks round and asks.
#pragma once

#include <link_platform.h>

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace lumora_nodes {

struct Service {
    std::string name;
    int transport = 0;
    unsigned outputBytes = 0;
};

// A node has come or gone.
struct NodeEvent {
    bool added = false;
    std::string address;
    int port = 0;
    std::string type;
};

class RemoteDevice {
public:
    explicit RemoteDevice(AppResourceProxy* proxy) : mProxy(proxy) {}

    std::string Address() const;
    int Port() const;
    // Nothing when it does not answer, or refuses.
    std::optional<std::string> Ask(const std::string& key, const std::string& value = "") const;

private:
    struct Deleter {
        void operator()(AppResourceProxy* proxy) const { FreeAppResourceProxy2(proxy); }
    };
    std::unique_ptr<AppResourceProxy, Deleter> mProxy;
};

// Only one object at a time: the platform's events do not tell which node they belong to.
class LinkNode {
public:
    // onEvent runs on the platform's thread. type is a string literal, or null. A node with a type is seen by
    // the others, and they notice its end. A node without one only looks. Throws std::runtime_error if the
    // platform does not start.
    explicit LinkNode(std::function<void(NodeEvent event)> onEvent, const char* type = nullptr);
    ~LinkNode();
    LinkNode(const LinkNode&) = delete;
    LinkNode& operator=(const LinkNode&) = delete;

    std::vector<RemoteDevice> Find(const std::string& type);
    // Ends requests in progress; later ones and searches fail. Other threads may be in them.
    void Leave();

private:
    struct Deleter {
        void operator()(LinkPlatform* platform) const { FreeLinkPlatform(platform); }
    };

    AppResource mResource = {};
    std::unique_ptr<LinkPlatform, Deleter> mPlatform;
};

// Reads the service document of a device. Nothing if it cannot be understood. Services whose name is
// repeated, or can be no name, are left out.
std::optional<std::vector<Service>> ParseServices(const std::string& document);

// A device and its answers.
struct FoundDevice {
    std::string address;
    int port = 0;
    std::string type;
    bool answers = false;  // false: it is there, but did not tell its services
    std::vector<Service> services;
    std::string version;
};

FoundDevice Describe(const RemoteDevice& device, const std::string& type);

std::string TransportName(int transport);

}  // namespace lumora_nodes
