#include "platform/link/io/port_guard.h"

#include <netinet/in.h>
#include <sys/socket.h>

#include "base/socket_option.h"

namespace lumora_link {

PortGuard ReservePort(std::uint16_t wanted) {
    PortGuard guard;
    lumora::UniqueFd fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(wanted);
    auto* generic = reinterpret_cast<sockaddr*>(&address);
    socklen_t size = sizeof address;
    if (!fd || bind(fd.Get(), generic, size) != 0 || getsockname(fd.Get(), generic, &size) != 0) {
        return guard;
    }
    // This socket receives datagrams to addresses that the node does not serve. No thread reads them, so the
    // kernel keeps as few as it can.
    constexpr int LEAST = 1;
    lumora::SetSocketOption(fd.Get(), SOL_SOCKET, SO_REUSEADDR, 1);
    lumora::SetSocketOption(fd.Get(), SOL_SOCKET, SO_RCVBUF, LEAST);
    guard.socket = std::move(fd);
    guard.port = ntohs(address.sin_port);
    return guard;
}

}  // namespace lumora_link
