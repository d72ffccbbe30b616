#include "tools/lumora/session/device_address.h"

#include "nodes/platform_front.h"
#include "tools/lumora/terminal/failure.h"

namespace lumora_cli {

using lumora_nodes::ParseAddress;

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
    const std::optional<lumora_nodes::DeviceAddress> wanted = ParseAddress(address);
    if (!wanted) {
        throw Failure(EXIT_USAGE, "--address \"" + address + "\" is no IPv4 address",
                      "it is one as 192.168.1.7, or with the port that lumora find shows, 192.168.1.7:40123");
    }
    // The library cannot search by address, so the platform's answers are filtered below it.
    lumora_nodes::FindOnly(*wanted);
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
