#include "platform/link/io/interface_list.h"

#include <ifaddrs.h>
#include <net/if.h>

#include <algorithm>
#include <cstring>
#include <memory>

namespace lumora_link {

namespace {

in_addr_t AddressOf(const sockaddr* generic, in_addr_t otherwise) {
    if (generic == nullptr) {
        return otherwise;
    }
    sockaddr_in address = {};
    std::memcpy(&address, generic, sizeof address);
    return address.sin_addr.s_addr;
}

}  // namespace

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
        SystemInterface found;
        found.local = {if_nametoindex(at->ifa_name), at->ifa_name, AddressOf(at->ifa_addr, 0)};
        // A cable that is out leaves an interface up but not running.
        found.up = (at->ifa_flags & IFF_UP) != 0 && (at->ifa_flags & IFF_RUNNING) != 0;
        found.mask = AddressOf(at->ifa_netmask, INADDR_NONE);
        if ((at->ifa_flags & IFF_POINTOPOINT) != 0) {
            found.otherEnd = AddressOf(at->ifa_dstaddr, 0);
        }
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

LinkScope::LinkScope(const std::vector<SystemInterface>& all, const std::vector<LocalInterface>& used,
                     const std::vector<Endpoint>& peers) {
    for (const SystemInterface& own : all) {
        const bool isUsed = std::any_of(used.begin(), used.end(), [&own](const LocalInterface& local) {
            return local.index == own.local.index;
        });
        mSubnets.push_back({own.local.host, isUsed ? own.mask : INADDR_NONE});
        if (isUsed && own.otherEnd != 0) {
            mSubnets.push_back({own.otherEnd, INADDR_NONE});
        }
    }
    for (const Endpoint& peer : peers) {
        mSubnets.push_back({peer.host, INADDR_NONE});
    }
}

bool LinkScope::Contains(in_addr_t host) const {
    return std::any_of(mSubnets.begin(), mSubnets.end(), [host](const Subnet& subnet) {
        return (host & subnet.mask) == (subnet.host & subnet.mask);
    });
}

bool ReachesOthers(const std::vector<LocalInterface>& used) {
    return std::any_of(used.begin(), used.end(),
                       [](const LocalInterface& local) { return !LocalInterface::IsLoopback(local.host); });
}

}  // namespace lumora_link
