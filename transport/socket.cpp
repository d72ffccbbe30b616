#include "transport/socket.h"

#include <fcntl.h>
#include <linux/sockios.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <system_error>
#include <utility>

#include "base/socket_option.h"
#include "library/log.h"
#include "securec.h"

namespace lumoraAiModule {

namespace {

// A peer whose power fails sends no FIN, and a silent channel would never notice. It is given up after idle +
// count * interval = 14 s.
constexpr int KEEPALIVE_IDLE_SECONDS = 5;
constexpr int KEEPALIVE_INTERVAL_SECONDS = 3;
constexpr int KEEPALIVE_COUNT = 3;

using Clock = std::chrono::steady_clock;

int MillisecondsUntil(Clock::time_point deadline) {
    const auto rest = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
    return static_cast<int>(std::max<std::chrono::milliseconds::rep>(rest.count(), 0));
}

// connect returns EINTR even with SA_RESTART, because SO_SNDTIMEO is set. The kernel goes on connecting, and
// a second connect would fail with EALREADY, so this waits for the end. SO_ERROR alone does not tell it: it
// is 0 also while the connection is still being made, and getpeername then fails.
int FinishInterruptedConnect(const Descriptor& socket, Clock::time_point deadline) {
    PauseUntilReady(socket.Number(), POLLOUT, MillisecondsUntil(deadline));
    int error = 0;
    socklen_t size = sizeof(error);
    sockaddr_in peer = {};
    socklen_t peerSize = sizeof(peer);
    if (getsockopt(socket.Number(), SOL_SOCKET, SO_ERROR, &error, &size) == 0 && error == 0 &&
        getpeername(socket.Number(), reinterpret_cast<sockaddr*>(&peer), &peerSize) == 0) {
        return 0;
    }
    errno = error != 0 ? error : ETIMEDOUT;
    return -1;
}

}  // namespace

Descriptor::Descriptor(Descriptor&& other) noexcept : mNumber(std::exchange(other.mNumber, 0)) {}

Descriptor& Descriptor::operator=(Descriptor&& other) noexcept {
    if (this != &other) {
        Close();
        mNumber = std::exchange(other.mNumber, 0);
    }
    return *this;
}

// 0 stands for "none", and the kernel gives that number to a socket when the application has closed its
// standard input. Such a socket is moved to another number. FD_SET writes behind its set for a number of
// FD_SETSIZE or more, so an application with that many open files is refused with EMFILE. close may change
// errno; the caller logs the error of the step that failed.
Descriptor Descriptor::Adopt(int fd) {
    Descriptor descriptor;
    if (fd < 0) {
        return descriptor;
    }
    if (fd == 0) {
        fd = fcntl(0, F_DUPFD_CLOEXEC, 1);
        const int error = errno;
        close(0);
        errno = error;
        if (fd < 0) {
            return descriptor;
        }
    }
    if (fd >= FD_SETSIZE) {
        close(fd);
        errno = EMFILE;
        return descriptor;
    }
    descriptor.mNumber = fd;
    return descriptor;
}

void Descriptor::Close() {
    if (mNumber != 0) {
        close(std::exchange(mNumber, 0));
    }
}

// SOCK_CLOEXEC, not fcntl afterwards: another thread may call fork and exec between the two, and its child
// would keep the port and the connection open.
Descriptor OpenStreamSocket() { return Descriptor::Adopt(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)); }

// accept does not pass O_NONBLOCK on in Linux: the connection blocks in read, as LimitReadWaits needs it.
Descriptor AcceptConnection(const Descriptor& listenSocket, in_addr& from) {
    sockaddr_in peer = {};
    socklen_t size = sizeof(peer);
    Descriptor connection = Descriptor::Adopt(
        accept4(listenSocket.Number(), reinterpret_cast<sockaddr*>(&peer), &size, SOCK_CLOEXEC));
    from = peer.sin_addr;
    return connection;
}

int FillAddress(const char* operation, int port, sockaddr_in& address) {
    if (memset_s(&address, sizeof(address), 0, sizeof(address)) != 0) {
        LUMORA_LOG_AS(lumora::LOG_ERROR, operation, "memset_s failed\n");
        return -1;
    }
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_ANY);
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    return 0;
}

int SetNonBlocking(const Descriptor& socket) {
    const int flags = fcntl(socket.Number(), F_GETFL);
    return flags < 0 ? -1 : fcntl(socket.Number(), F_SETFL, flags | O_NONBLOCK);
}

// Connections of the last channel may stay in TIME_WAIT for a minute, and bind would fail with EADDRINUSE for
// that long.
int SetReuseAddress(const Descriptor& socket) {
    return lumora::SetSocketOption(socket.Number(), SOL_SOCKET, SO_REUSEADDR, 1) ? 0 : -1;
}

// Without SO_SNDTIMEO Linux tries for about two minutes, and the caller's locks are held for as long. The
// option stays set; it has no effect later, because the socket becomes non-blocking.
int ConnectWithin(const Descriptor& socket, const sockaddr_in& address, int seconds) {
    const Clock::time_point deadline = Clock::now() + std::chrono::seconds(seconds);
    lumora::SetSocketOption(socket.Number(), SOL_SOCKET, SO_SNDTIMEO, timeval{seconds, 0});
    if (connect(socket.Number(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0) {
        return 0;
    }
    if (errno == EINTR) {
        return FinishInterruptedConnect(socket, deadline);
    }
    if (errno == EINPROGRESS) {
        errno = ETIMEDOUT;  // how Linux reports that SO_SNDTIMEO ran out
    }
    return -1;
}

void TuneConnection(const Descriptor& socket) {
    lumora::SetSocketOption(socket.Number(), IPPROTO_TCP, TCP_NODELAY, 1);
    lumora::SetSocketOption(socket.Number(), SOL_SOCKET, SO_KEEPALIVE, 1);
    lumora::SetSocketOption(socket.Number(), IPPROTO_TCP, TCP_KEEPIDLE, KEEPALIVE_IDLE_SECONDS);
    lumora::SetSocketOption(socket.Number(), IPPROTO_TCP, TCP_KEEPINTVL, KEEPALIVE_INTERVAL_SECONDS);
    lumora::SetSocketOption(socket.Number(), IPPROTO_TCP, TCP_KEEPCNT, KEEPALIVE_COUNT);
}

// The kernel pushes what MSG_MORE holds back when TCP_NODELAY is set, also if it was set already.
void PushWritten(const Descriptor& socket) {
    lumora::SetSocketOption(socket.Number(), IPPROTO_TCP, TCP_NODELAY, 1);
}

void LimitReadWaits(const Descriptor& socket, int microseconds) {
    lumora::SetSocketOption(socket.Number(), SOL_SOCKET, SO_RCVTIMEO, timeval{0, microseconds});
}

// close would not do: it does not wake a thread in select or read, and the number may then belong to another
// file of the application before that thread uses it again.
void StopReading(const Descriptor& socket) { shutdown(socket.Number(), SHUT_RD); }

// POLLRDHUP sees a FIN behind data that was not read yet; a read with MSG_PEEK would see only the data.
bool HasPeerLeft(const Descriptor& socket, int milliseconds) {
    return PauseUntilReady(socket.Number(), POLLRDHUP, milliseconds);
}

bool HasPeerSentEnd(const Descriptor& socket) {
    tcp_info info = {};
    socklen_t size = sizeof(info);
    if (getsockopt(socket.Number(), IPPROTO_TCP, TCP_INFO, &info, &size) != 0) {
        return true;
    }
    return info.tcpi_state != TCP_ESTABLISHED && info.tcpi_state != TCP_FIN_WAIT1 &&
           info.tcpi_state != TCP_FIN_WAIT2;
}

unsigned int BytesArrived(const Descriptor& socket) {
    int count = 0;
    return ioctl(socket.Number(), SIOCINQ, &count) == 0 ? static_cast<unsigned int>(count) : 0;
}

BytesUnderWay BytesNotTaken(const Descriptor& socket) {
    BytesUnderWay bytes;
    int unsent = 0;
    if (ioctl(socket.Number(), SIOCOUTQ, &bytes.all) == 0 &&
        ioctl(socket.Number(), SIOCOUTQNSD, &unsent) == 0) {
        bytes.sent = bytes.all - unsent;
    }
    return bytes;
}

bool PauseUntilReady(int fd, short events, int milliseconds) {
    const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(milliseconds);
    pollfd watched = {fd, events, 0};
    int ready = poll(&watched, 1, milliseconds);
    while (ready < 0 && errno == EINTR) {
        ready = poll(&watched, 1, MillisecondsUntil(deadline));
    }
    return ready > 0;
}

std::string ErrorText(int error) { return std::system_category().message(error); }

}  // namespace lumoraAiModule
