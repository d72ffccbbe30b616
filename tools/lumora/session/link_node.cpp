#include "tools/lumora/session/link_node.h"

#include <iterator>
#include <set>

#include "nodes/platform_front.h"
#include "tools/lumora/os/signals.h"
#include "tools/lumora/terminal/failure.h"
#include "tools/lumora/terminal/json.h"

namespace lumora_cli {

namespace {

// Events come on the platform's thread until the last node is gone.
Inbox<NodeEvent>& EventInbox() {
    static Inbox<NodeEvent> inbox;
    return inbox;
}

std::unique_ptr<lumora_nodes::LinkNode> StartNode() {
    try {
        return std::make_unique<lumora_nodes::LinkNode>(
            [](NodeEvent event) { EventInbox().Put(std::move(event)); });
    } catch (const std::runtime_error& error) {
        throw Failure(EXIT_FAILED, lumora_nodes::WithCause(error.what()),
                      "lumora doctor looks for what is wrong");
    }
}

std::string ServiceJson(const Service& service) {
    return JsonObject()
        .Add("name", service.name)
        .Add("transport", TransportName(service.transport))
        .Add("outputBytes", service.outputBytes)
        .Text();
}

}  // namespace

LinkNode::LinkNode() : mNode(StartNode()) {}

Inbox<NodeEvent>& LinkNode::Events() { return EventInbox(); }

std::vector<RemoteDevice> LinkNode::Find(const std::string& type) { return mNode->Find(type); }

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
    while (const std::optional<NodeEvent> event = node.Events().Take(end)) {
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
