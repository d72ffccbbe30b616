#include "platform/link/wire/types.h"

#include <arpa/inet.h>

#include <charconv>

namespace lumora_link {

std::string HostText(in_addr_t host) {
    char text[INET_ADDRSTRLEN] = {};
    in_addr address = {};
    address.s_addr = host;
    inet_ntop(AF_INET, &address, text, sizeof text);
    return text;
}

std::string EndpointText(const Endpoint& endpoint) {
    return HostText(endpoint.host) + ":" + std::to_string(endpoint.port);
}

std::optional<Endpoint> ParseEndpoint(const std::string& text, std::uint16_t defaultPort) {
    Endpoint endpoint;
    endpoint.port = defaultPort;
    const std::size_t colon = text.find(':');
    if (colon != std::string::npos) {
        const char* first = text.data() + colon + 1;
        const char* last = text.data() + text.size();
        const auto [end, error] = std::from_chars(first, last, endpoint.port);
        if (error != std::errc() || end != last) {
            return std::nullopt;
        }
    }
    in_addr address = {};
    if (endpoint.port == 0 || inet_pton(AF_INET, text.substr(0, colon).c_str(), &address) != 1) {
        return std::nullopt;
    }
    endpoint.host = address.s_addr;
    return endpoint;
}

Endpoint MulticastGroup() {
    constexpr in_addr_t ALL_COAP_NODES = 0xe00001bb;  // 224.0.1.187
    return {htonl(ALL_COAP_NODES), 5683};
}

}  // namespace lumora_link
