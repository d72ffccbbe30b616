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

// Those that LUMORA_LINK_INTERFACE leaves; all where it is not set.
std::vector<Interface> ChosenInterfaces();

// For --interface: ends the program where a name is none of this host's.
void CheckInterfaceNames(const std::string& names);

}  // namespace lumora_cli
