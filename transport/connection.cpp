#include "transport/connection.h"

#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

namespace lumoraAiModule {

namespace {

// The beginning of a frame whose payload lies apart is joined up to this length.
constexpr unsigned int JOINED_SIZE = 4096;

}  // namespace

// The protection refers to the socket, so it goes first.
Connection& Connection::operator=(Connection&& other) noexcept {
    if (this != &other) {
        Close();
        mProtection = std::move(other.mProtection);
        mSocket = std::move(other.mSocket);
        mHandshakeEnds = other.mHandshakeEnds;
        mWanted = other.mWanted;
    }
    return *this;
}

void Connection::Close() {
    SayEnd();
    mProtection.reset();
    mSocket.Close();
}

void Connection::SayEnd() {
    if (IsProtected()) {
        mProtection->Shutdown();
    }
}

bool Connection::Protect(const lumora::ChannelKeys& keys, lumora::ChannelKeys::Direction direction,
                         bool accepts, std::chrono::milliseconds limit) {
    mProtection = keys.Open(direction, accepts, mSocket.Number());
    mHandshakeEnds = Clock::now() + limit;
    return IsProtected();
}

Connection::Handshake Connection::ShakeHands() {
    if (!IsProtected()) {
        return Handshake::DONE;
    }
    const int result = mProtection->Handshake();
    if (result == 1) {
        return Handshake::DONE;
    }
    errno = result == lumora::ProtectedConnection::FAILED ? EPROTO : ETIMEDOUT;
    mWanted = result == lumora::ProtectedConnection::WANTS_WRITE ? POLLOUT : POLLIN;
    return errno == ETIMEDOUT && Clock::now() < mHandshakeEnds ? Handshake::GOES_ON : Handshake::FAILED;
}

// Several pieces may have come with one read of the socket. They are handed on together.
ssize_t Connection::Read(void* bytes, unsigned int size) {
    if (!IsProtected()) {
        return read(mSocket.Number(), bytes, size);
    }
    errno = 0;
    auto* const to = static_cast<char*>(bytes);
    int total = mProtection->Read(to, size);
    while (total > 0 && static_cast<unsigned int>(total) < size && mProtection->HasPending()) {
        const int count = mProtection->Read(to + total, size - static_cast<unsigned int>(total));
        if (count <= 0) {
            break;  // the next read tells why
        }
        total += count;
    }
    return ResultOf(total);
}

ssize_t Connection::ReadAtOnce(void* bytes, unsigned int size) {
    return IsProtected() ? Read(bytes, size) : recv(mSocket.Number(), bytes, size, MSG_DONTWAIT);
}

ssize_t Connection::Send(const FrameParts& frame, unsigned int offset, int flags) {
    if (!IsProtected()) {
        return SendPlain(frame, offset, flags);
    }
    errno = 0;
    return ResultOf(WriteProtected(frame, offset));
}

// One system call for all that is left of the frame.
ssize_t Connection::SendPlain(const FrameParts& frame, unsigned int offset, int flags) const {
    if (offset >= frame.headLength) {
        offset -= frame.headLength;
        return send(mSocket.Number(), frame.payload + offset, frame.payloadLength - offset, flags);
    }
    if (frame.payloadLength == 0) {
        return send(mSocket.Number(), frame.head + offset, frame.headLength - offset, flags);
    }
    iovec parts[] = {{const_cast<char*>(frame.head) + offset, frame.headLength - offset},
                     {const_cast<char*>(frame.payload), frame.payloadLength}};
    msghdr message = {};
    message.msg_iov = parts;
    message.msg_iovlen = 2;
    return sendmsg(mSocket.Number(), &message, flags);
}

// Each write makes a protected piece and may make a segment, so a head takes some payload along. A repeated
// write begins with the same bytes and has at least as many.
int Connection::WriteProtected(const FrameParts& frame, unsigned int offset) {
    if (offset >= frame.headLength) {
        offset -= frame.headLength;
        return mProtection->Write(frame.payload + offset, frame.payloadLength - offset);
    }
    const unsigned int headLeft = frame.headLength - offset;
    if (frame.payloadLength == 0 || headLeft >= JOINED_SIZE) {
        return mProtection->Write(frame.head + offset, headLeft);
    }
    char joined[JOINED_SIZE];
    const unsigned int taken = std::min(JOINED_SIZE - headLeft, frame.payloadLength);
    std::memcpy(joined, frame.head + offset, headLeft);
    std::memcpy(joined + headLeft, frame.payload, taken);
    return mProtection->Write(joined, headLeft + taken);
}

// A failure that is none of the socket's is a broken protocol. What the socket says of an operation that
// would block says nothing about one that failed.
ssize_t Connection::ResultOf(int result) {
    if (result >= 0) {
        return result;
    }
    if (result == lumora::ProtectedConnection::FAILED) {
        errno = errno == 0 || WouldBlock(errno) ? EPROTO : errno;
    } else {
        mWanted = result == lumora::ProtectedConnection::WANTS_WRITE ? POLLOUT : POLLIN;
        errno = EAGAIN;
    }
    return -1;
}

}  // namespace lumoraAiModule
