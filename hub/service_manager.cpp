#include "hub/service_manager.h"

#include <sys/socket.h>
#include <sys/un.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>

#include "base/unique_fd.h"

namespace lumora_hub {

void TellServiceManager(const char* state) {
    const char* const path = std::getenv("NOTIFY_SOCKET");
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    const std::size_t length = path != nullptr ? std::strlen(path) : 0;
    if (length == 0 || length >= sizeof(address.sun_path)) {
        return;
    }
    std::memcpy(address.sun_path, path, length);
    // A leading @ stands for the NUL of an abstract name.
    if (path[0] == '@') {
        address.sun_path[0] = '\0';
    }
    const lumora::UniqueFd sender(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sendto(sender.Get(), state, std::strlen(state), MSG_NOSIGNAL, reinterpret_cast<const sockaddr*>(&address),
           static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + length));
}

}  // namespace lumora_hub
