// Keeps a UDP port of this host for one node.
//
// libcoap binds with SO_REUSEADDR. With that set, the kernel's choice for port 0 may be a port that
// another such socket has, and a fixed port can be taken twice without anybody noticing. A socket
// that was bound without it finds both out; afterwards it lets libcoap's in beside itself.
#pragma once

#include <cstdint>

#include "base/unique_fd.h"

namespace lumora_link {

struct PortGuard {
    lumora::UniqueFd socket;
    std::uint16_t port = 0;
};

// Any free port where wanted is 0. The guard holds no socket where the port is taken.
PortGuard ReservePort(std::uint16_t wanted);

}  // namespace lumora_link
