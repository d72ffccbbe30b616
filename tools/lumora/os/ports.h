// The data channel's fixed ports on this host.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

namespace lumora_cli {

constexpr int DEVICE_PORT = 6666;
constexpr int CLIENT_PORT = 6667;

enum class PortState { FREE, TAKEN, UNKNOWN };

// Whether the library could listen on it now.
PortState TcpPortState(int port);
// Whether the link platform could bind a socket to it now.
PortState UdpPortState(int port);

// The IPv4 address to which this process has a TCP connection with this port there; empty if it has none.
std::string ConnectedAddress(int port);

struct PortHolder {
    pid_t process = 0;
    std::string name;
    bool usesLumora = false;  // the process runs the library, so it is a client or a device

    // "lumora, process 1234".
    std::string Text() const { return name + ", process " + std::to_string(process); }
};

// The process that listens on a TCP port, as /proc tells it. Nothing if no process listens, or if it belongs
// to another user: /proc then hides its descriptors.
std::optional<PortHolder> TcpPortHolder(int port);

}  // namespace lumora_cli
