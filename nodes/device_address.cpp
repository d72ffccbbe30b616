#include "nodes/device_address.h"

#include <arpa/inet.h>

#include <charconv>

namespace lumora_nodes {

std::optional<DeviceAddress> ParseAddress(const std::string& text) {
    constexpr int LAST_PORT = 65535;
    DeviceAddress address;
    const std::size_t colon = text.find(':');
    address.host = text.substr(0, colon);
    in_addr ignored = {};
    if (inet_pton(AF_INET, address.host.c_str(), &ignored) != 1) {
        return std::nullopt;
    }
    if (colon != std::string::npos) {
        const char* const end = text.data() + text.size();
        const auto [rest, error] = std::from_chars(text.data() + colon + 1, end, address.port);
        // from_chars accepts "80x" as 80, so the end is compared too.
        if (error != std::errc() || rest != end || address.port < 1 || address.port > LAST_PORT) {
            return std::nullopt;
        }
    }
    return address;
}

}  // namespace lumora_nodes
