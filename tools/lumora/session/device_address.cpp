#include "tools/lumora/session/device_address.h"

#include <arpa/inet.h>

#include <charconv>

#include "tools/lumora/session/platform_front.h"
#include "tools/lumora/terminal/failure.h"

namespace lumora_cli {

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

void DeviceChoice::Take() {
    // A type may contain "@" itself. Only what parses as an address after the last one is taken off.
    const std::size_t at = type.rfind('@');
    if (address.empty() && at != std::string::npos && ParseAddress(type.substr(at + 1))) {
        address = type.substr(at + 1);
        type.erase(at);
    }
    if (address.empty()) {
        return;
    }
    const std::optional<DeviceAddress> wanted = ParseAddress(address);
    if (!wanted) {
        throw Failure(EXIT_USAGE, "--address \"" + address + "\" is no IPv4 address",
                      "it is one as 192.168.1.7, or with the port that lumora find shows, 192.168.1.7:40123");
    }
    // The library cannot search by address, so the platform's answers are filtered below it.
    FindOnly(*wanted);
}

std::string DeviceChoice::Text() const {
    return '"' + type + '"' + (address.empty() ? "" : " at " + address);
}

void AddAddress(Command& command, DeviceChoice& choice) {
    command
        .Text("--address", "ADDRESS", choice.address,
              "of several devices of this type, the one with this IPv4 address, or with ADDRESS:PORT; lumora "
              "find shows both. TYPE@ADDRESS says the same")
        .letter = 'a';
}

}  // namespace lumora_cli
