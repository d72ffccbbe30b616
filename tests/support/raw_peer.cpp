#include "tests/support/raw_peer.h"

#include <arpa/inet.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <thread>
#include <utility>

#include "tests/support/system_faults.h"

namespace lumora_test {

namespace {

constexpr int LIMIT_MS = 20000;

[[noreturn]] void Fail(const std::string& what) { throw std::runtime_error("raw peer: " + what); }

sockaddr_in Loopback(int port) {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<uint16_t>(port));
    return address;
}

void WaitFor(int fd, short events, const char* what) {
    pollfd watched = {fd, events, 0};
    if (poll(&watched, 1, LIMIT_MS) <= 0) {
        Fail(std::string("timed out: ") + what);
    }
}

int NewSocket() {
    const SystemFaultsPaused paused;
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        Fail("no socket");
    }
    return fd;
}

}  // namespace

RawConnection::RawConnection(RawConnection&& other) noexcept : mFd(std::exchange(other.mFd, -1)) {}

RawConnection& RawConnection::operator=(RawConnection&& other) noexcept {
    Close();
    mFd = std::exchange(other.mFd, -1);
    return *this;
}

RawConnection RawConnection::To(int port) {
    const SystemFaultsPaused paused;
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(LIMIT_MS);
    const sockaddr_in address = Loopback(port);
    while (std::chrono::steady_clock::now() < end) {
        RawConnection connection(NewSocket());
        if (connect(connection.mFd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0) {
            const int on = 1;
            setsockopt(connection.mFd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
            return connection;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    Fail("no listener");
}

void RawConnection::Send(const Bytes& bytes) {
    const SystemFaultsPaused paused;
    size_t sent = 0;
    while (sent < bytes.size()) {
        WaitFor(mFd, POLLOUT, "send");
        const ssize_t count = send(mFd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        if (count < 0) {
            Fail(std::string("send: ") + std::strerror(errno));
        }
        sent += static_cast<size_t>(count);
    }
}

void RawConnection::SendInPieces(const Bytes& bytes, size_t pieceLength) {
    for (size_t sent = 0; sent < bytes.size(); sent += pieceLength) {
        Send(bytes.substr(sent, pieceLength));
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

Bytes RawConnection::Receive(size_t count) {
    Bytes bytes(count, '\0');
    size_t received = 0;
    while (received < count) {
        WaitFor(mFd, POLLIN, "receive");
        const ssize_t got = recv(mFd, &bytes[received], count - received, 0);
        if (got <= 0) {
            Fail("connection ended after " + std::to_string(received) + " of " + std::to_string(count) +
                 " bytes");
        }
        received += static_cast<size_t>(got);
    }
    return bytes;
}

Bytes RawConnection::ReceiveSome(std::chrono::milliseconds limit) {
    pollfd watched = {mFd, POLLIN, 0};
    if (poll(&watched, 1, static_cast<int>(limit.count())) <= 0) {
        return Bytes();
    }
    Bytes bytes(65536, '\0');
    const ssize_t got = recv(mFd, &bytes[0], bytes.size(), 0);
    bytes.resize(got > 0 ? static_cast<size_t>(got) : 0);
    return bytes;
}

bool RawConnection::SeesEnd() {
    char byte = 0;
    pollfd watched = {mFd, POLLIN, 0};
    while (poll(&watched, 1, LIMIT_MS) > 0) {
        if (recv(mFd, &byte, 1, 0) <= 0) {
            return true;
        }
    }
    return false;
}

void RawConnection::ShutdownSending() { shutdown(mFd, SHUT_WR); }

void RawConnection::Close() {
    if (mFd >= 0) {
        close(std::exchange(mFd, -1));
    }
}

void RawConnection::Reset() {
    const SystemFaultsPaused paused;
    const linger abort = {1, 0};
    setsockopt(mFd, SOL_SOCKET, SO_LINGER, &abort, sizeof(abort));
    Close();
}

void RawConnection::SetReceiveBuffer(int bytes) {
    const SystemFaultsPaused paused;
    setsockopt(mFd, SOL_SOCKET, SO_RCVBUF, &bytes, sizeof(bytes));
}

RawListener::RawListener(int port) : mFd(NewSocket()) {
    const SystemFaultsPaused paused;
    const int on = 1;
    setsockopt(mFd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
    sockaddr_in address = Loopback(port);
    if (bind(mFd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 || listen(mFd, 10) != 0) {
        close(mFd);
        Fail(std::string("listen: ") + std::strerror(errno));
    }
    socklen_t size = sizeof(address);
    getsockname(mFd, reinterpret_cast<sockaddr*>(&address), &size);
    mPort = ntohs(address.sin_port);
}

RawListener::~RawListener() { Close(); }

RawConnection RawListener::Accept() {
    const SystemFaultsPaused paused;
    WaitFor(mFd, POLLIN, "accept");
    const int fd = accept4(mFd, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) {
        Fail(std::string("accept: ") + std::strerror(errno));
    }
    return RawConnection(fd);
}

void RawListener::Close() {
    if (mFd >= 0) {
        close(std::exchange(mFd, -1));
    }
}

int FreePort() { return RawListener(0).Port(); }

Bytes LittleEndian32(unsigned int value) {
    Bytes bytes;
    for (int shift = 0; shift < 32; shift += 8) {
        bytes += static_cast<char>((value >> shift) & 0xff);
    }
    return bytes;
}

Bytes ClientFrame(int clientID, const Bytes& payload) {
    return Bytes(1, 6) + LittleEndian32(static_cast<unsigned int>(payload.size())) +
           Bytes(1, static_cast<char>(clientID)) + payload;
}

Bytes ServerFrameBytes(const Bytes& clientIDs, const Bytes& serviceName, const Bytes& payload) {
    return Bytes(1, static_cast<char>(7 + clientIDs.size() + serviceName.size())) +
           LittleEndian32(static_cast<unsigned int>(payload.size())) +
           Bytes(1, static_cast<char>(clientIDs.size())) + clientIDs +
           Bytes(1, static_cast<char>(serviceName.size())) + serviceName + payload;
}

}  // namespace lumora_test
