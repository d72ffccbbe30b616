// A node that looks round for a command, and can itself not be found.
#pragma once

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "nodes/link_node.h"
#include "tools/lumora/session/inbox.h"

namespace lumora_cli {

using lumora_nodes::Describe;
using lumora_nodes::FoundDevice;
using lumora_nodes::NodeEvent;
using lumora_nodes::RemoteDevice;
using lumora_nodes::Service;
using lumora_nodes::TransportName;

// Only one object at a time. Throws a Failure if the platform does not start.
class LinkNode {
public:
    LinkNode();

    std::vector<RemoteDevice> Find(const std::string& type);
    Inbox<NodeEvent>& Events();

private:
    std::unique_ptr<lumora_nodes::LinkNode> mNode;
};

// All devices of a type; empty when there are none after the time given.
std::vector<FoundDevice> FindDevices(LinkNode& node, const std::string& type,
                                     std::chrono::milliseconds patience);

// Devices of every type that are heard in this time. Throws a QuietEnd when a signal comes.
std::vector<FoundDevice> FindAllDevices(LinkNode& node, std::chrono::milliseconds time);

std::string ToJson(const FoundDevice& device);
std::string ToJson(const std::vector<FoundDevice>& devices);

}  // namespace lumora_cli
