#include "tools/lumora/os/interfaces.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "tools/lumora/terminal/failure.h"
#include "tools/lumora/terminal/text.h"

namespace lumora_cli {

namespace {

std::string AddressIn(const ifaddrs& entry) {
    if (entry.ifa_addr == nullptr || entry.ifa_addr->sa_family != AF_INET) {
        return "";
    }
    sockaddr_in address = {};
    std::memcpy(&address, entry.ifa_addr, sizeof(address));
    char text[INET_ADDRSTRLEN] = "";
    inet_ntop(AF_INET, &address.sin_addr, text, sizeof(text));
    return text;
}

bool IsAmong(const std::string& names, const std::string& name) {
    const std::vector<std::string> all = Split(names, ',');
    return std::find(all.begin(), all.end(), name) != all.end();
}

}  // namespace

std::vector<Interface> ListInterfaces() {
    ifaddrs* first = nullptr;
    if (getifaddrs(&first) != 0) {
        return {};
    }
    const std::unique_ptr<ifaddrs, decltype(&freeifaddrs)> owner(first, freeifaddrs);
    std::vector<Interface> all;
    for (const ifaddrs* at = first; at != nullptr; at = at->ifa_next) {
        const auto known = std::find_if(all.begin(), all.end(),
                                        [at](const Interface& other) { return other.name == at->ifa_name; });
        Interface& entry = known != all.end() ? *known : all.emplace_back();
        entry.index = static_cast<int>(if_nametoindex(at->ifa_name));
        entry.name = at->ifa_name;
        entry.address = entry.address.empty() ? AddressIn(*at) : entry.address;
        // A cable that is out leaves an interface up but not running.
        entry.running = (at->ifa_flags & IFF_UP) != 0 && (at->ifa_flags & IFF_RUNNING) != 0;
        entry.multicast = (at->ifa_flags & IFF_MULTICAST) != 0;
        entry.loopback = (at->ifa_flags & IFF_LOOPBACK) != 0;
    }
    return all;
}

std::vector<Interface> ChosenInterfaces() {
    std::vector<Interface> chosen = ListInterfaces();
    const char* names = std::getenv("LUMORA_LINK_INTERFACE");
    if (names != nullptr && *names != '\0') {
        chosen.erase(std::remove_if(chosen.begin(), chosen.end(),
                                    [names](const Interface& entry) { return !IsAmong(names, entry.name); }),
                     chosen.end());
    }
    return chosen;
}

void CheckInterfaceNames(const std::string& names) {
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
