// The data channel's fixed ports on this host.
#pragma once

namespace lumora_cli {

constexpr int DEVICE_PORT = 6666;
constexpr int CLIENT_PORT = 6667;

enum class PortState { FREE, TAKEN, UNKNOWN };

// Whether a listening socket could be had, as the library would ask for it.
PortState TcpPortState(int port);
// Whether a socket could be bound to it, as the link platform would ask for it.
PortState UdpPortState(int port);

}  // namespace lumora_cli
