#include "tools/lumora/os/ports.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <set>
#include <system_error>

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

// The inodes of the sockets that listen on the port, in the kernel's list. A line of that list begins with
// "sl: ADDRESS:PORT ADDRESS:PORT STATE", all in hexadecimal; the inode is its tenth word.
std::set<std::string> ListeningInodes(const char* list, int port) {
    constexpr unsigned LISTENING = 0x0A;
    std::set<std::string> inodes;
    std::ifstream lines(list);
    std::string line;
    while (std::getline(lines, line)) {
        unsigned linePort = 0;
        unsigned state = 0;
        char inode[24] = "";
        const int read =
            std::sscanf(line.c_str(), " %*d: %*[0-9A-F]:%x %*[0-9A-F]:%*x %x %*s %*s %*s %*s %*s %23s",
                        &linePort, &state, inode);
        if (read == 3 && state == LISTENING && linePort == static_cast<unsigned>(port)) {
            inodes.insert("socket:[" + std::string(inode) + ']');
        }
    }
    return inodes;
}

// Empty if there is no such link, or if this user may not read it.
std::string TargetOf(const std::filesystem::path& link) {
    std::error_code error;
    return std::filesystem::read_symlink(link, error).string();
}

bool HasDescriptorOf(const std::filesystem::path& process, const std::set<std::string>& targets) {
    std::error_code error;
    for (std::filesystem::directory_iterator at(process / "fd", error), end; !error && at != end;
         at.increment(error)) {
        if (targets.count(TargetOf(at->path())) != 0) {
            return true;
        }
    }
    return false;
}

// A program that is linked statically maps no library; of those, only this program is known.
bool RunsLumora(const std::filesystem::path& process) {
    if (TargetOf(process / "exe") == TargetOf("/proc/self/exe")) {
        return true;
    }
    std::ifstream maps(process / "maps");
    std::string line;
    while (std::getline(maps, line)) {
        if (line.find("/liblumora_cpp.so") != std::string::npos) {
            return true;
        }
    }
    return false;
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
    // With SO_REUSEADDR the kernel lets several sockets bind to one port. Only listen() tells whether the
    // port is taken.
    return StateAfter(bind(fd.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0 &&
                      listen(fd.Get(), 1) == 0);
}

PortState UdpPortState(int port) {
    const lumora::UniqueFd fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    const sockaddr_in address = AnyAddress(port);
    return StateAfter(fd &&
                      bind(fd.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0);
}

std::string ConnectedAddress(int port) {
    std::error_code error;
    for (std::filesystem::directory_iterator at("/proc/self/fd", error), end; !error && at != end;
         at.increment(error)) {
        sockaddr_in peer = {};
        socklen_t length = sizeof(peer);
        // Fails for all descriptors but those of connected sockets.
        const int fd = std::stoi(at->path().filename().string());
        if (getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &length) == 0 && peer.sin_family == AF_INET &&
            ntohs(peer.sin_port) == port) {
            char text[INET_ADDRSTRLEN] = "";
            inet_ntop(AF_INET, &peer.sin_addr, text, sizeof(text));
            return text;
        }
    }
    return "";
}

std::optional<PortHolder> TcpPortHolder(int port) {
    std::set<std::string> inodes = ListeningInodes("/proc/net/tcp", port);
    inodes.merge(ListeningInodes("/proc/net/tcp6", port));
    if (inodes.empty()) {
        return std::nullopt;
    }
    std::error_code error;
    for (std::filesystem::directory_iterator at("/proc", error), end; !error && at != end;
         at.increment(error)) {
        // Processes are the folders whose names are numbers. One may end while this reads.
        const std::string number = at->path().filename().string();
        if (number.find_first_not_of("0123456789") == std::string::npos &&
            HasDescriptorOf(at->path(), inodes)) {
            std::string name;
            std::ifstream comm(at->path() / "comm");
            std::getline(comm, name);
            return PortHolder{static_cast<pid_t>(std::stol(number)), name, RunsLumora(at->path())};
        }
    }
    return std::nullopt;
}

}  // namespace lumora_cli
