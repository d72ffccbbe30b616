#include "hub/web/options.h"

#include <arpa/inet.h>

#include <charconv>
#include <cstdint>

namespace lumora_hub::web {
namespace {

constexpr std::size_t SHORTEST_TOKEN = 16;

bool IsAddress(const std::string& text) {
    in6_addr ignored{};
    return inet_pton(AF_INET, text.c_str(), &ignored) == 1 ||
           inet_pton(AF_INET6, text.c_str(), &ignored) == 1;
}

bool ReadPort(const std::string& text, int& port) {
    int value = 0;
    const char* const end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, value);
    if (error != std::errc() || stop != end || value < 0 || value > UINT16_MAX) {
        return false;
    }
    port = value;
    return true;
}

// Control characters, and characters that a header cannot carry, would make a token that no client can send.
bool IsSendable(const std::string& token) {
    for (const char character : token) {
        if (character <= ' ' || character > '~') {
            return false;
        }
    }
    return true;
}

}  // namespace

bool IsLoopback(const std::string& address) {
    in_addr v4{};
    if (inet_pton(AF_INET, address.c_str(), &v4) == 1) {
        return (ntohl(v4.s_addr) >> 24) == 127;
    }
    return address == "::1";
}

std::string Refusal(const WebOptions& options) {
    const bool isLocal = IsLoopback(options.address);
    if (!IsAddress(options.address)) {
        return "the address to listen on must be an IPv4 or IPv6 address";
    }
    if (!options.token.empty() && (options.token.size() < SHORTEST_TOKEN || !IsSendable(options.token))) {
        return "the token must have at least 16 characters, all of them printable and none a blank";
    }
    if (options.certificateFile.empty() != options.keyFile.empty()) {
        return "a certificate needs its key, and a key its certificate";
    }
    if (!isLocal && options.token.empty()) {
        return "an address that other hosts reach needs a token";
    }
    if (!isLocal && options.certificateFile.empty() && !options.plainAllowed) {
        return "an address that other hosts reach needs a certificate, or --allow-plain-http";
    }
    return {};
}

bool ReadListenAddress(const std::string& text, WebOptions& options) {
    const std::size_t colon = text.rfind(':');
    if (colon == std::string::npos) {
        return false;
    }
    std::string address = text.substr(0, colon);
    const bool hasBrackets = address.size() > 2 && address.front() == '[' && address.back() == ']';
    if (hasBrackets) {
        address = address.substr(1, address.size() - 2);
    }
    const bool isVersion6 = address.find(':') != std::string::npos;
    int port = 0;
    if (hasBrackets != isVersion6 || !IsAddress(address) || !ReadPort(text.substr(colon + 1), port)) {
        return false;
    }
    options.address = address;
    options.port = port;
    return true;
}

}  // namespace lumora_hub::web
