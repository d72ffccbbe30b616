#include "platform/link/io/interface_list.h"

#include <ifaddrs.h>
#include <net/if.h>

#include <algorithm>
#include <cstring>
#include <memory>

namespace lumora_link {

std::vector<SystemInterface> ListSystemInterfaces() {
    ifaddrs* first = nullptr;
    if (getifaddrs(&first) != 0) {
        return {};
    }
    const std::unique_ptr<ifaddrs, decltype(&freeifaddrs)> owner(first, freeifaddrs);
    std::vector<SystemInterface> all;
    for (const ifaddrs* at = first; at != nullptr; at = at->ifa_next) {
        if (at->ifa_addr == nullptr || at->ifa_addr->sa_family != AF_INET) {
            continue;
        }
        sockaddr_in address = {};
        std::memcpy(&address, at->ifa_addr, sizeof address);
        SystemInterface found;
        found.local = {if_nametoindex(at->ifa_name), at->ifa_name, address.sin_addr.s_addr};
        // A cable that is out leaves an interface up but not running.
        found.up = (at->ifa_flags & IFF_UP) != 0 && (at->ifa_flags & IFF_RUNNING) != 0;
        all.push_back(found);
    }
    return all;
}

std::vector<LocalInterface> SelectInterfaces(const std::vector<SystemInterface>& all,
                                             const std::vector<std::string>& names) {
    std::vector<LocalInterface> selected;
    for (const SystemInterface& candidate : all) {
        const bool named =
            names.empty() || std::find(names.begin(), names.end(), candidate.local.name) != names.end();
        const bool taken = std::any_of(selected.begin(), selected.end(), [&](const LocalInterface& other) {
            return other.index == candidate.local.index;
        });
        if (candidate.up && candidate.local.index != 0 && named && !taken) {
            selected.push_back(candidate.local);
        }
    }
    std::sort(selected.begin(), selected.end(),
              [](const LocalInterface& a, const LocalInterface& b) { return a.index < b.index; });
    return selected;
}

}  // namespace lumora_link
