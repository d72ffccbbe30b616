#include "tools/lumora/os/ports.h"

#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>

#include "base/socket_option.h"
#include "base/unique_fd.h"

namespace lumora_cli {

namespace {

sockaddr_in AnyAddress(int port) {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_ANY);
    address.sin_port = htons(static_cast<in_port_t>(port));
    return address;
}

PortState StateAfter(bool mine) {
    return mine ? PortState::FREE : errno == EADDRINUSE ? PortState::TAKEN : PortState::UNKNOWN;
}

}  // namespace

PortState TcpPortState(int port) {
    const lumora::UniqueFd fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const sockaddr_in address = AnyAddress(port);
    if (!fd || !lumora::SetSocketOption(fd.Get(), SOL_SOCKET, SO_REUSEADDR, 1)) {
        return PortState::UNKNOWN;
    }
    // Addresses may be shared by sockets that do not listen: only listening shows it.
    return StateAfter(bind(fd.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0 &&
                      listen(fd.Get(), 1) == 0);
}

PortState UdpPortState(int port) {
    const lumora::UniqueFd fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    const sockaddr_in address = AnyAddress(port);
    return StateAfter(fd &&
                      bind(fd.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0);
}

}  // namespace lumora_cli
