// Where a node of the network is.
#pragma once

#include <optional>
#include <string>

namespace lumora_nodes {

struct DeviceAddress {
    std::string host;  // empty: any
    int port = 0;      // UDP; 0: any

    bool Matches(const std::string& otherHost, int otherPort) const {
        return (host.empty() || host == otherHost) && (port == 0 || port == otherPort);
    }
};

// "192.168.1.7" or "192.168.1.7:40123"; nothing if it is neither.
std::optional<DeviceAddress> ParseAddress(const std::string& text);

}  // namespace lumora_nodes
