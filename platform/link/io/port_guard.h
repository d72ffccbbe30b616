// Keeps a UDP port of this host for one node.
//
// libcoap binds with SO_REUSEADDR. With that option the kernel may choose a port that another such socket
// has, and two nodes can bind one fixed port without an error. The guard's socket is bound without it, so
// bind() reports both cases. Setting the option afterwards lets libcoap's socket bind to the same port.
#pragma once

#include <cstdint>

#include "base/unique_fd.h"

namespace lumora_link {

struct PortGuard {
    lumora::UniqueFd socket;
    std::uint16_t port = 0;
};

// wanted: 0 for any free port. The guard holds no socket if the port is taken.
PortGuard ReservePort(std::uint16_t wanted);

}  // namespace lumora_link
