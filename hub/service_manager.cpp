#include "hub/service_manager.h"

#include <sys/socket.h>
#include <sys/un.h>

#include <csignal>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

#include "base/unique_fd.h"

namespace lumora_hub {

namespace {

const char* NotifySocket() { return std::getenv("NOTIFY_SOCKET"); }

}  // namespace

void TellServiceManager(const char* state) {
    const char* const path = NotifySocket();
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

void DelayNextStart(const char* reason) {
    constexpr timespec PAUSE = {10, 0};
    if (NotifySocket() == nullptr) {
        return;
    }
    TellServiceManager((std::string("STATUS=Cannot start, next try in 10 s: ") + reason).c_str());
    sigset_t end;
    sigemptyset(&end);
    sigaddset(&end, SIGINT);
    sigaddset(&end, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &end, nullptr);
    sigtimedwait(&end, nullptr, &PAUSE);
}

}  // namespace lumora_hub
