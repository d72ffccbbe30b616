#include "platform/link/io/close_on_exec.h"

#include <fcntl.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <string>
#include <vector>

#include "base/unique_fd.h"

namespace lumora_link {

namespace {

std::string ReadWhole(const std::string& path) {
    const lumora::UniqueFd file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    std::string text;
    std::array<char, 4096> part;
    // A file of /proc has no size, so this reads until the end.
    for (ssize_t bytes = 1; file && bytes > 0;) {
        bytes = read(file.Get(), part.data(), part.size());
        text.append(part.data(), bytes > 0 ? static_cast<std::size_t>(bytes) : 0);
    }
    return text;
}

}  // namespace

void CloseOnExec(int epoll) {
    fcntl(epoll, F_SETFD, FD_CLOEXEC);
    // A line for each: "tfd:       14 events: ...".
    static const std::string WATCHED = "tfd:";
    const std::string info = ReadWhole("/proc/self/fdinfo/" + std::to_string(epoll));
    for (std::size_t at = info.find(WATCHED); at != std::string::npos; at = info.find(WATCHED, at + 1)) {
        fcntl(static_cast<int>(std::strtol(info.c_str() + at + WATCHED.size(), nullptr, 10)), F_SETFD,
              FD_CLOEXEC);
    }
}

// The kernel gives out the lowest free number, so a duplicate that is closed at once shows it.
int NextDescriptor(int any) { return lumora::UniqueFd(fcntl(any, F_DUPFD_CLOEXEC, 0)).Get(); }

bool CloseOnExecIfConnected(int socket, const Endpoint& to) {
    sockaddr_in peer = {};
    socklen_t size = sizeof peer;
    const bool known = getpeername(socket, reinterpret_cast<sockaddr*>(&peer), &size) == 0;
    return known && Endpoint{peer.sin_addr.s_addr, ntohs(peer.sin_port)} == to &&
           fcntl(socket, F_SETFD, FD_CLOEXEC) == 0;
}

bool IsBoundTo(int socket, const Endpoint& endpoint) {
    sockaddr_in own = {};
    socklen_t size = sizeof own;
    return getsockname(socket, reinterpret_cast<sockaddr*>(&own), &size) == 0 &&
           Endpoint{own.sin_addr.s_addr, ntohs(own.sin_port)} == endpoint;
}

// Opens them all to find out, and closes them again: RLIMIT_NOFILE alone does not tell how many are in use.
bool DescriptorsAreLeft(std::size_t count) {
    std::vector<lumora::UniqueFd> taken(count);
    return std::all_of(taken.begin(), taken.end(), [](lumora::UniqueFd& fd) {
        fd = lumora::UniqueFd(eventfd(0, EFD_CLOEXEC));
        return static_cast<bool>(fd);
    });
}

}  // namespace lumora_link
