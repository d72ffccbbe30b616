#include "tools/lumora/os/ports.h"

#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>

#include "tools/lumora/os/unique_fd.h"

namespace lumora_cli {

PortState TcpPortState(int port) {
    const UniqueFd fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const int yes = 1;
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_ANY);
    address.sin_port = htons(static_cast<in_port_t>(port));
    if (!fd.IsOpen() || setsockopt(fd.Get(), SOL_SOCKET, SO_REUSEADDR, &yes, sizeof(yes)) != 0) {
        return PortState::UNKNOWN;
    }
    // Addresses may be shared by sockets that do not listen: only listening shows it.
    const bool mine = bind(fd.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0 &&
                      listen(fd.Get(), 1) == 0;
    return mine ? PortState::FREE : errno == EADDRINUSE ? PortState::TAKEN : PortState::UNKNOWN;
}

}  // namespace lumora_cli
