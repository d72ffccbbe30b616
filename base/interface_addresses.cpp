#include "base/interface_addresses.h"

#include <ifaddrs.h>
#include <net/if.h>

#include <cstring>
#include <memory>

namespace lumora {

namespace {

// The kernel leaves the netmask of some tunnels out.
in_addr_t AddressOf(const sockaddr* generic, in_addr_t otherwise) {
    if (generic == nullptr) {
        return otherwise;
    }
    sockaddr_in address = {};
    std::memcpy(&address, generic, sizeof(address));
    return address.sin_addr.s_addr;
}

InterfaceAddress EntryOf(const ifaddrs& from) {
    InterfaceAddress entry;
    entry.index = if_nametoindex(from.ifa_name);
    entry.name = from.ifa_name;
    // An interface without its cable stays up (IFF_UP) but is not running.
    entry.running = (from.ifa_flags & IFF_UP) != 0 && (from.ifa_flags & IFF_RUNNING) != 0;
    entry.multicast = (from.ifa_flags & IFF_MULTICAST) != 0;
    entry.loopback = (from.ifa_flags & IFF_LOOPBACK) != 0;
    entry.hasIpv4 = from.ifa_addr != nullptr && from.ifa_addr->sa_family == AF_INET;
    if (entry.hasIpv4) {
        entry.host = AddressOf(from.ifa_addr, 0);
        entry.mask = AddressOf(from.ifa_netmask, INADDR_NONE);
        // One union holds the other end and the broadcast address. This flag tells which of them it is.
        entry.otherEnd = (from.ifa_flags & IFF_POINTOPOINT) != 0 ? AddressOf(from.ifa_dstaddr, 0) : 0;
    }
    return entry;
}

}  // namespace

// The owner frees the kernel's list also if memory for ours runs out.
std::vector<InterfaceAddress> ListInterfaceAddresses() {
    ifaddrs* first = nullptr;
    if (getifaddrs(&first) != 0) {
        return {};
    }
    const std::unique_ptr<ifaddrs, decltype(&freeifaddrs)> owner(first, freeifaddrs);
    // Copied, because the list of the C library ends with owner.
    std::vector<InterfaceAddress> all;
    for (const ifaddrs* at = first; at != nullptr; at = at->ifa_next) {
        all.push_back(EntryOf(*at));
    }
    return all;
}

}  // namespace lumora
