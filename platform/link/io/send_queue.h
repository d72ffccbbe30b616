// What a socket has sent and the kernel still holds.
#pragma once

namespace lumora_link {

// Datagrams to an address that no host has stay in the send buffer for 3 s, until the kernel gives up asking
// for that host. A full buffer takes nothing more, to any address.
bool IsHalfFull(int socket);

}  // namespace lumora_link
