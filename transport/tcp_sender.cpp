#include "transport/tcp_sender.h"

#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <cerrno>
#include <utility>

#include "library/log.h"
#include "transport/operation_names.h"

namespace lumoraAiModule {

namespace {

// How soon a send notices that it was interrupted, or that its channel broke.
constexpr int FULL_SOCKET_PAUSE_MS = 1;
// Pauses without one byte written: together about half a second. The caller's locks are held meanwhile, so a
// peer that stops reading delays other calls for no longer.
constexpr unsigned int FULL_SOCKET_LIMIT = 500;  // pauses without one byte written

}  // namespace

// The socket blocks until it is connected, so that SO_SNDTIMEO bounds the connect, and is non-blocking from
// then on: a blocking send could not be interrupted. The socket is stored when it is complete; a failure
// leaves the one before in place.
int TcpSender::SetupSenderSocket(int port, const std::string& addr, int limitSeconds, int& error) {
    auto socket = std::make_shared<Descriptor>(OpenStreamSocket());
    if (!socket->IsOpen()) {
        error = errno;
        LUMORA_ERROR("create socket error: %s(errno: %d)\n", ErrorText(error).c_str(), error);
        return -1;
    }
    sockaddr_in address;
    if (FillAddress(SETUP_SENDER_SOCKET, port, address) != 0) {
        return -1;
    }
    LUMORA_DETAIL("addr: %s\n", addr.c_str());
    if (inet_pton(AF_INET, addr.c_str(), &address.sin_addr) <= 0) {
        LUMORA_ERROR("inet_pton error for %s\n", addr.c_str());
        return -1;
    }
    if (ConnectWithin(*socket, address, limitSeconds) != 0) {
        error = errno;
        LUMORA_ERROR("connect error: %s(errno: %d)\n", ErrorText(error).c_str(), error);
        return -1;
    }
    TuneConnection(*socket);
    SetNonBlocking(*socket);
    LUMORA_DETAIL("set non-blocking socket\n");
    SetSocket(std::move(socket));
    return 0;
}

// MSG_NOSIGNAL: without it a peer that has closed would end the application by SIGPIPE. A frame is held back
// only while the receive thread waits, because that thread is woken to push it. A frame that was not held
// back takes the ones before it along.
int TcpSender::WriteAll(const std::shared_ptr<Descriptor>& socket, const FrameParts& frame,
                        unsigned int* written) {
    const unsigned int length = frame.Length();
    const bool holdsBack =
        mBurst.MayHoldBack(length, SendBurst::Clock::now()) && mState.receiveWait.IsWaiting();
    const int result = Write(socket, frame, holdsBack ? MSG_NOSIGNAL | MSG_MORE : MSG_NOSIGNAL, written);
    mBurst.OnSent(length, holdsBack, SendBurst::Clock::now());
    if (holdsBack) {
        OnHeldBack();
    } else if (*written > 0) {
        mHoldsBack = false;
    }
    return result;
}

// The receive thread is the one that pushes: it has a wait that can be ended, so no thread more is needed. It
// may have left its wait since it was asked for:
//   this thread       mHoldsBack = true, then asks whether the receive thread waits
//   receive thread    leaves its wait, then asks whether frames are held back
// At least one of the two sees the other and pushes.
void TcpSender::OnHeldBack() {
    const bool isFirst = !mHoldsBack.exchange(true);
    if (!mState.receiveWait.IsWaiting()) {
        PushHeldBack();
    } else if (isFirst) {
        mState.receiveWait.EndSoon(SendBurst::LONGEST_HOLD_BACK);
    }
}

void TcpSender::PushHeldBack() {
    if (!mHoldsBack.exchange(false)) {
        return;
    }
    if (const std::shared_ptr<Descriptor> socket = Socket()) {
        PushWritten(*socket);
    }
}

// A write may take a part of the frame only. The rest has to follow at once, so the caller holds mMutex
// throughout. DestoryTransports closes the socket without that mutex while this thread may be in send or
// poll: the shared pointer keeps the descriptor's number from being used again. An error ends the receiving
// direction too, or a client would listen to a device that it cannot reach.
int TcpSender::Write(const std::shared_ptr<Descriptor>& socket, const FrameParts& frame, int flags,
                     unsigned int* written) {
    const unsigned int length = frame.Length();
    unsigned int wouldBlockWrites = 0;
    *written = 0;
    while (*written < length && MayWrite()) {
        const ssize_t count = WriteFrom(*socket, frame, *written, flags);
        if (count >= 0) {
            wouldBlockWrites = 0;
            *written += static_cast<unsigned int>(count);
        } else {
            const int error = errno;
            if (!WouldBlock(error)) {
                LogWriteError(mSide, error);
                mState.EndReceiving();
                Close();
                return -1;
            }
            if (!PauseBeforeNextWrite(*socket, error, wouldBlockWrites)) {
                return 0;
            }
        }
        if (*written < length && Socket() != socket) {  // it was closed meanwhile
            return 0;
        }
    }
    return 0;
}

// One system call for what is left of the frame behind offset.
ssize_t TcpSender::WriteFrom(const Descriptor& socket, const FrameParts& frame, unsigned int offset,
                             int flags) {
    if (offset >= frame.headLength) {
        offset -= frame.headLength;
        return send(socket.Number(), frame.payload + offset, frame.payloadLength - offset, flags);
    }
    if (frame.payloadLength == 0) {
        return send(socket.Number(), frame.head + offset, frame.headLength - offset, flags);
    }
    iovec parts[] = {{const_cast<char*>(frame.head) + offset, frame.headLength - offset},
                     {const_cast<char*>(frame.payload), frame.payloadLength}};
    msghdr message = {};
    message.msg_iov = parts;
    message.msg_iovlen = 2;
    return sendmsg(socket.Number(), &message, flags);
}

// A device's channel whose receiving direction has ended can no longer send: its client has closed or is
// gone. A client's can, and finds out by the error of its write.
bool TcpSender::MayWrite() const {
    return !mState.broken && !mInterrupted && (mSide == Side::CLIENT || mState.running);
}

// A spent budget is no error for the caller: the bytes that were written stay in the stream, and the short
// count tells the rest. The channel is broken from here on.
bool TcpSender::PauseBeforeNextWrite(const Descriptor& socket, int error, unsigned int& wouldBlockWrites) {
    PauseUntilReady(socket.Number(), POLLOUT, FULL_SOCKET_PAUSE_MS);
    if (wouldBlockWrites++ <= FULL_SOCKET_LIMIT) {
        return true;
    }
    LUMORA_LOG_AS(lumora::LOG_ERROR, SEND_DATA, "SendData timeout: %s(errno: %d)\n", ErrorText(error).c_str(),
                  error);
    mState.broken = true;
    mState.EndReceiving();
    Close();
    return false;
}

std::shared_ptr<Descriptor> TcpSender::Socket() {
    const lumora::MutexLock lock(mSocketMutex);
    return mSocket;
}

// The shutdown sends the FIN and wakes a writer in poll, also while that writer still holds the descriptor.
// It stands outside of the mutex, as any system call; the local reference keeps the descriptor open.
void TcpSender::SetSocket(std::shared_ptr<Descriptor> socket) {
    {
        const lumora::MutexLock lock(mSocketMutex);
        mSocket.swap(socket);
    }
    if (socket != nullptr && socket->IsOpen()) {
        shutdown(socket->Number(), SHUT_RDWR);
    }
}

}  // namespace lumoraAiModule
