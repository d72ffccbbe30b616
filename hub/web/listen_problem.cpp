#include "hub/web/listen_problem.h"

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

#include "base/unique_fd.h"

namespace lumora_hub::web {
namespace {

std::string SystemText(int error) { return std::generic_category().message(error); }

// Empty if the address can be listened on.
std::string AddressProblem(const WebOptions& options) {
    sockaddr_storage place{};
    socklen_t length = 0;
    auto* const v4 = reinterpret_cast<sockaddr_in*>(&place);
    auto* const v6 = reinterpret_cast<sockaddr_in6*>(&place);
    if (inet_pton(AF_INET, options.address.c_str(), &v4->sin_addr) == 1) {
        v4->sin_family = AF_INET;
        v4->sin_port = htons(static_cast<std::uint16_t>(options.port));
        length = sizeof(*v4);
    } else if (inet_pton(AF_INET6, options.address.c_str(), &v6->sin6_addr) == 1) {
        v6->sin6_family = AF_INET6;
        v6->sin6_port = htons(static_cast<std::uint16_t>(options.port));
        length = sizeof(*v6);
    }
    const lumora::UniqueFd socket(::socket(place.ss_family, SOCK_STREAM | SOCK_CLOEXEC, 0));
    // As the library does: connections of a hub that has ended do not keep the port.
    const int on = 1;
    if (!socket || setsockopt(socket.Get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on)) != 0 ||
        bind(socket.Get(), reinterpret_cast<const sockaddr*>(&place), length) != 0) {
        return errno == EADDRINUSE ? "another program uses this port; --listen names another one"
                                   : SystemText(errno);
    }
    return {};
}

std::string FileProblem(const std::string& path) {
    return access(path.c_str(), R_OK) == 0 ? "" : path + " cannot be read: " + SystemText(errno);
}

}  // namespace

std::string ListenProblem(const WebOptions& options) {
    std::string problem = AddressProblem(options);
    for (const std::string& file : {options.certificateFile, options.keyFile}) {
        if (problem.empty() && !file.empty()) {
            problem = FileProblem(file);
        }
    }
    if (!problem.empty()) {
        return problem;
    }
    return options.certificateFile.empty()
               ? "see the log"
               : options.certificateFile + " is no certificate in PEM with the key of " + options.keyFile;
}

}  // namespace lumora_hub::web
