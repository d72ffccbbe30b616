// The host's network interfaces, as far as IPv4 can use them.
#pragma once

#include <netinet/in.h>

#include <string>
#include <vector>

namespace lumora_cli {

struct Interface {
    int index = 0;
    std::string name;
    std::string address;  // empty: it has none
    bool running = false;
    bool multicast = false;
    bool loopback = false;
};

// Each once, with its first address.
std::vector<Interface> ListInterfaces();

// The interfaces that LUMORA_LINK_INTERFACE names; all if it is not set.
std::vector<Interface> ChosenInterfaces();

// For --interface. Throws a Failure if this host has no interface of a name.
void CheckInterfaceNames(const std::string& names);

}  // namespace lumora_cli
