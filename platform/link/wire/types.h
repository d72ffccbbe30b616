// The small values that every part of the link platform speaks of.
#pragma once

#include <netinet/in.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

namespace lumora_link {

using Clock = std::chrono::steady_clock;
using TimePoint = Clock::time_point;
using Milliseconds = std::chrono::milliseconds;

// Keys, values and device types are C strings of at most this many bytes.
constexpr std::size_t MAX_TEXT_BYTES = 1023;

struct Endpoint {
    in_addr_t host = 0;      // network byte order, as in struct in_addr
    std::uint16_t port = 0;  // host order

    bool operator==(const Endpoint& other) const { return host == other.host && port == other.port; }
    bool operator!=(const Endpoint& other) const { return !(*this == other); }
    // By the dotted form's numbers, so that lists come in the order a reader expects.
    bool operator<(const Endpoint& other) const { return Order() < other.Order(); }
    std::uint64_t Order() const { return std::uint64_t{ntohl(host)} << 16 | port; }
};

std::string HostText(in_addr_t host);
std::string EndpointText(const Endpoint& endpoint);
// Accepts "a.b.c.d" and "a.b.c.d:port". Without a port it is defaultPort. Empty if the text is neither.
std::optional<Endpoint> ParseEndpoint(const std::string& text, std::uint16_t defaultPort);

// RFC 7252's group of all CoAP nodes and the port that is registered for it.
Endpoint MulticastGroup();

// A node with a key is asked by DTLS, on the port after the one by which it is known. CoAP's ports 5683 and
// 5684 are numbered in the same way.
constexpr Endpoint SecuredPortOf(const Endpoint& endpoint) {
    return {endpoint.host, static_cast<std::uint16_t>(endpoint.port + 1)};
}

// The inverse of SecuredPortOf.
constexpr Endpoint PlainPortOf(const Endpoint& endpoint) {
    return {endpoint.host, static_cast<std::uint16_t>(endpoint.port - 1)};
}

struct LocalInterface {
    unsigned index = 0;
    std::string name;
    in_addr_t host = 0;

    // A socket bound to a loopback address reaches loopback addresses only, and no other socket reaches them.
    bool Reaches(const Endpoint& endpoint) const { return IsLoopback(host) == IsLoopback(endpoint.host); }
    static bool IsLoopback(in_addr_t address) { return ntohl(address) >> 24 == IN_LOOPBACKNET; }

    bool operator==(const LocalInterface& other) const {
        return index == other.index && name == other.name && host == other.host;
    }
};

// A node keeps its id while its handle lives; each start gives it another instance number.
struct NodeIdentity {
    std::uint64_t id = 0;
    std::uint32_t instance = 0;

    bool operator==(const NodeIdentity& other) const { return id == other.id && instance == other.instance; }
    bool operator!=(const NodeIdentity& other) const { return !(*this == other); }
};

struct NodeDescription {
    NodeIdentity identity;
    Endpoint endpoint;
    // Absent if the node offers no resource. It then only searches and asks.
    std::optional<std::string> deviceType;
    bool secured = false;
};

}  // namespace lumora_link
