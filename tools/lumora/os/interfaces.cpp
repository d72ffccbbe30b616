#include "tools/lumora/os/interfaces.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstdlib>

#include "base/interface_addresses.h"
#include "tools/lumora/terminal/failure.h"
#include "tools/lumora/terminal/text.h"

namespace lumora_cli {

namespace {

std::string AddressText(in_addr_t host) {
    const in_addr address = {host};
    char text[INET_ADDRSTRLEN] = "";
    inet_ntop(AF_INET, &address, text, sizeof(text));
    return text;
}

bool IsAmong(const std::string& names, const std::string& name) {
    const std::vector<std::string> all = Split(names, ',');
    return std::find(all.begin(), all.end(), name) != all.end();
}

}  // namespace

std::vector<Interface> ListInterfaces() {
    std::vector<Interface> all;
    for (const lumora::InterfaceAddress& found : lumora::ListInterfaceAddresses()) {
        const auto known = std::find_if(
            all.begin(), all.end(), [&found](const Interface& other) { return other.name == found.name; });
        // The kernel lists an interface once for its hardware and once for each address.
        Interface& entry = known != all.end() ? *known : all.emplace_back();
        entry.index = static_cast<int>(found.index);
        entry.name = found.name;
        if (entry.address.empty() && found.hasIpv4) {
            entry.address = AddressText(found.host);
        }
        entry.running = found.running;
        entry.multicast = found.multicast;
        entry.loopback = found.loopback;
    }
    return all;
}

std::vector<Interface> ChosenInterfaces() {
    std::vector<Interface> chosen = ListInterfaces();
    const char* names = std::getenv("LUMORA_LINK_INTERFACE");
    // An empty variable counts as not set, as in the link platform.
    if (names != nullptr && *names != '\0') {
        chosen.erase(std::remove_if(chosen.begin(), chosen.end(),
                                    [names](const Interface& entry) { return !IsAmong(names, entry.name); }),
                     chosen.end());
    }
    return chosen;
}

void CheckInterfaceNames(const std::string& names) {
    // Names in one list, so that the same test serves for both lists.
    std::string all;
    for (const Interface& entry : ListInterfaces()) {
        all += (all.empty() ? "" : ",") + entry.name;
    }
    for (const std::string& name : Split(names, ',')) {
        if (!IsAmong(all, name)) {
            throw Failure(EXIT_USAGE, "this host has no network interface \"" + name + '"',
                          "it has " + (all.empty() ? "none" : all));
        }
    }
}

}  // namespace lumora_cli
