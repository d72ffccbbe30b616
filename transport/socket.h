// Descriptors with an owner, and the socket calls that both transports make.
#pragma once

#include <netinet/in.h>

#include <cerrno>
#include <string>

namespace lumoraAiModule {

// Owns a descriptor. 0 means none: a descriptor of that number is never held.
class Descriptor {
public:
    Descriptor() = default;
    ~Descriptor() { Close(); }
    Descriptor(Descriptor&& other) noexcept;
    Descriptor& operator=(Descriptor&& other) noexcept;

    // Takes over fd, the result of a system call that may have failed: then none is held and errno tells
    // why. The number is kept between 1 and FD_SETSIZE - 1, so that it can stand for itself and be
    // selected on.
    static Descriptor Adopt(int fd);

    int Number() const { return mNumber; }
    bool IsOpen() const { return mNumber != 0; }
    void Close();

private:
    int mNumber = 0;
};

// A new IPv4 stream socket that programs started by this one do not inherit.
Descriptor OpenStreamSocket();

// A connection from the backlog of a non-blocking listening socket, and the address that it comes from.
Descriptor AcceptConnection(const Descriptor& listenSocket, in_addr& from);

// Any local address with port; callers that connect overwrite the address. 0 or -1; a failure is logged as
// one of operation.
int FillAddress(const char* operation, int port, sockaddr_in& address);

// 0 or -1 with errno.
int SetNonBlocking(const Descriptor& socket);
int SetReuseAddress(const Descriptor& socket);

// Waits until the connection stands, at most so long, whatever signals interrupt it. 0 or -1 with errno.
int ConnectWithin(const Descriptor& socket, const sockaddr_in& address, int seconds);

// Small frames go out at once instead of waiting for an acknowledgement of the one before, and a peer that
// vanished without a word is noticed. Best effort: the connection works without.
void TuneConnection(const Descriptor& socket);

// Sends what was written with MSG_MORE and still waits for more.
void PushWritten(const Descriptor& socket);

// Reads that find nothing wait, but not longer than this (less than a second), and then fail with EAGAIN.
// Best effort.
void LimitReadWaits(const Descriptor& socket, int microseconds);

// Shuts down the read side: a thread that waits for data wakes up, and read() returns 0 from then on, as
// after a close by the peer. The peer does not notice.
void StopReading(const Descriptor& socket);
// Whether the peer has closed or reset the connection, or does so within that time. Data that it sent before
// may still be unread.
bool HasPeerLeft(const Descriptor& socket, int milliseconds = 0);

// The same by the state of the connection, which a shutdown of our own read side does not change.
bool HasPeerSentEnd(const Descriptor& socket);
// How many bytes a read would return at once.
unsigned int BytesArrived(const Descriptor& socket);
// How many bytes that were written the peer's host has not acknowledged yet, and how many of them have been
// sent.
struct BytesUnderWay {
    int all = 0;
    int sent = 0;
};
BytesUnderWay BytesNotTaken(const Descriptor& socket);

// Waits at most so long for one of the events (POLLIN, POLLOUT, POLLRDHUP), whatever signals arrive
// meanwhile, and tells whether there is one.
bool PauseUntilReady(int fd, short events, int milliseconds);

// Whether a read or a write failed only for now.
inline bool WouldBlock(int error) { return error == EAGAIN || error == EWOULDBLOCK || error == EINTR; }

// What strerror says, without its shared buffer.
std::string ErrorText(int error);

}  // namespace lumoraAiModule
