// This program's own GetLinkPlatform, GetNextAppResourceProxy and LogInfo, in front of those of the platform
// libraries.
//
// The dynamic linker takes a program's function before a library's, for the library's own calls as well. So
// lumora.hpp reaches the platform through here, and this program can do four things that the C interface has
// no words for: find devices by their address, stay unseen, ask the library without joining the network, and
// tell why a call failed.
#pragma once

#include <string>

#include "nodes/device_address.h"

namespace lumora_nodes {

// From now on searches find only devices with this address.
void FindOnly(const DeviceAddress& address);

// From now on handles register without a type: other nodes do not list this process, and do not notice when
// it ends. Call it before the first one.
void StayUnseen();

// From now on new handles belong to a platform without a network. Call it before the first one.
void StayOffline();

// The first error that the libraries have logged on this thread since the last call; empty without one.
std::string TakeCause();

// What failed, with its cause.
std::string WithCause(const std::string& what);

}  // namespace lumora_nodes
