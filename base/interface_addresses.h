// The network interfaces of this host, as the kernel lists them.
#pragma once

#include <netinet/in.h>

#include <string>
#include <vector>

namespace lumora {

// One entry of the kernel's list. An interface has an entry for each of its addresses, and one for its
// hardware.
struct InterfaceAddress {
    unsigned index = 0;  // 0: the interface vanished while the list was read
    std::string name;
    bool running = false;  // up, and its cable is plugged in
    bool multicast = false;
    bool loopback = false;
    bool hasIpv4 = false;  // otherwise the addresses below mean nothing
    in_addr_t host = 0;    // in network byte order, as the next two
    in_addr_t mask = INADDR_NONE;
    in_addr_t otherEnd = 0;  // of a point-to-point link; otherwise 0
};

// Empty if the system refuses the list. Throws std::bad_alloc.
std::vector<InterfaceAddress> ListInterfaceAddresses();

}  // namespace lumora
