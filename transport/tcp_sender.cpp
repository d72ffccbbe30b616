#include "transport/tcp_sender.h"

#include <arpa/inet.h>
#include <linux/sockios.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <utility>

#include "library/log.h"
#include "transport/operation_names.h"
#include "transport/peer_candidates.h"

namespace lumoraAiModule {

namespace {

// How soon a send notices that it was interrupted, or that its channel broke.
constexpr int FULL_SOCKET_PAUSE_MS = 1;
// Pauses without one byte written: together about half a second. The caller's locks are held meanwhile, so a
// peer that stops reading delays other calls for no longer.
constexpr unsigned int FULL_SOCKET_LIMIT = 500;  // pauses without one byte written
constexpr int HANDSHAKE_PAUSE_MS = 20;           // how late the end of a handshake's time is noticed
// Some retransmissions: the kernel waits for 0.2 s before the first, and twice as long each time.
constexpr std::chrono::milliseconds UNANSWERED_LIMIT{2000};
constexpr int LONGEST_TAKEN_PAUSE_MS = 10;
// From a device's first flight on: the reply to the setup request may get lost some times.
constexpr std::chrono::milliseconds ANSWER_LIMIT{10000};

// A protected write counts a piece of 16 KiB when its last byte has gone. Over a slow link that takes longer
// than the budget, so what the kernel still has to send is looked at as well.
class HiddenProgress {
public:
    // May change errno.
    bool HasMoved(const Connection& connection) {
        int unsent = 0;
        if (!connection.IsProtected() || ioctl(connection.Socket().Number(), SIOCOUTQ, &unsent) != 0) {
            return false;
        }
        return std::exchange(mUnsent, unsent) != unsent;
    }

private:
    int mUnsent = 0;
};

}  // namespace

// The socket blocks until it is connected, so that SO_SNDTIMEO bounds the connect, and is non-blocking from
// then on: a blocking send could not be interrupted. The socket is stored when it is complete; a failure
// leaves the one before in place.
int TcpSender::SetupSenderSocket(int port, const std::string& addr, int limitSeconds, int& error) {
    Descriptor socket = OpenStreamSocket();
    if (!socket.IsOpen()) {
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
    if (ConnectWithin(socket, address, limitSeconds) != 0) {
        error = errno;
        LUMORA_ERROR("connect error: %s(errno: %d)\n", ErrorText(error).c_str(), error);
        return -1;
    }
    TuneConnection(socket);
    SetNonBlocking(socket);
    LUMORA_DETAIL("set non-blocking socket\n");
    auto connection = std::make_shared<Connection>(std::move(socket));
    const std::shared_ptr<lumora::ChannelKeys> keys = mState.protection.Current().keys;
    if (keys != nullptr && BeginHandshake(*connection, *keys) != 0) {
        error = errno;
        LUMORA_ERROR("the handshake of the private channel failed: %s(errno: %d)\n", ErrorText(error).c_str(),
                     error);
        return -1;
    }
    SetSocket(std::move(connection));
    return 0;
}

// A client waits for the end of the handshake. A device must not: its client goes on only when the request
// that this is a part of has been answered. So a device sends its first flight, and its receive thread does
// the rest.
int TcpSender::BeginHandshake(Connection& connection, const lumora::ChannelKeys& keys) {
    const bool waits = mSide == Side::CLIENT;
    const auto direction =
        waits ? lumora::ChannelKeys::Direction::TO_DEVICE : lumora::ChannelKeys::Direction::TO_CLIENT;
    errno = ENOMEM;
    if (!connection.Protect(keys, direction, false, waits ? PeerCandidates::LIMIT : ANSWER_LIMIT)) {
        return -1;
    }
    Connection::Handshake result = connection.ShakeHands();
    while (waits && result == Connection::Handshake::GOES_ON) {
        PauseUntilReady(connection.Socket().Number(), connection.Wanted(), HANDSHAKE_PAUSE_MS);
        result = connection.ShakeHands();
    }
    return result == Connection::Handshake::FAILED ? -1 : 0;
}

bool TcpSender::GoOnWithHandshake(pollfd& watched) {
    const std::shared_ptr<Connection> connection = Socket();
    if (connection == nullptr || connection->IsReady()) {
        return false;
    }
    switch (connection->ShakeHands()) {
        case Connection::Handshake::DONE:
            return false;
        case Connection::Handshake::GOES_ON:
            watched = {connection->Socket().Number(), connection->Wanted(), 0};
            return true;
        case Connection::Handshake::FAILED:
            break;
    }
    const int error = errno;
    LUMORA_LOG_AS(lumora::LOG_ERROR, SETUP_SENDER_SOCKET,
                  "the handshake of the private channel failed: %s(errno: %d)\n", ErrorText(error).c_str(),
                  error);
    mState.broken = true;
    mState.EndReceiving();
    Close();
    return false;
}

// MSG_NOSIGNAL: without it a peer that has closed would end the application by SIGPIPE. A frame is held back
// only while the receive thread waits, because that thread is woken to push it. A frame that was not held
// back takes the ones before it along. On a protected connection nothing is held back: its pieces cannot be
// joined by the kernel.
int TcpSender::WriteAll(const std::shared_ptr<Connection>& socket, const FrameParts& frame,
                        unsigned int* written) {
    const unsigned int length = frame.Length();
    const bool holdsBack = mBurst.MayHoldBack(length, SendBurst::Clock::now()) && !socket->IsProtected() &&
                           mState.receiveWait.IsWaiting();
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
    if (const std::shared_ptr<Connection> socket = Socket()) {
        PushWritten(socket->Socket());
    }
}

// A write may take a part of the frame only. The rest has to follow at once, so the caller holds mMutex
// throughout. DestoryTransports closes the socket without that mutex while this thread may be in send or
// poll: the shared pointer keeps the descriptor's number from being used again. An error ends the receiving
// direction too, or a client would listen to a device that it cannot reach.
int TcpSender::Write(const std::shared_ptr<Connection>& socket, const FrameParts& frame, int flags,
                     unsigned int* written) {
    const unsigned int length = frame.Length();
    unsigned int wouldBlockWrites = 0;
    HiddenProgress progress;
    *written = 0;
    while (*written < length && MayWrite()) {
        const ssize_t count = socket->Send(frame, *written, flags);
        const int error = errno;
        if (count >= 0 || progress.HasMoved(*socket)) {
            wouldBlockWrites = 0;
        }
        if (count >= 0) {
            *written += static_cast<unsigned int>(count);
        } else {
            if (!WouldBlock(error)) {
                LogWriteError(mSide, error);
                mState.peerLeaves = true;
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

// A device's channel whose receiving direction has ended can no longer send: its client has closed or is
// gone. A client's can, and finds out by the error of its write.
bool TcpSender::MayWrite() const {
    return !mState.broken && !mInterrupted && (mSide == Side::CLIENT || mState.running);
}

// A spent budget is no error for the caller: the bytes that were written stay in the stream, and the short
// count tells the rest. The channel is broken from here on.
bool TcpSender::PauseBeforeNextWrite(const Connection& socket, int error, unsigned int& wouldBlockWrites) {
    PauseUntilReady(socket.Socket().Number(), socket.Wanted(), FULL_SOCKET_PAUSE_MS);
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

// Bytes that were sent and are not acknowledged are lost if that lasts: the peer's host is gone. Bytes that
// wait for the peer's window say that its program is slow.
void TcpSender::WaitUntilTaken(std::chrono::milliseconds limit) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    auto lastProgress = std::chrono::steady_clock::now();
    int left = 0;
    int pauseMs = 0;
    std::shared_ptr<Connection> socket = Socket();
    while (socket != nullptr && !mState.broken) {
        const BytesUnderWay bytes = BytesNotTaken(socket->Socket());
        const auto now = std::chrono::steady_clock::now();
        if (bytes.all != std::exchange(left, bytes.all) || bytes.sent == 0) {
            lastProgress = now;
        }
        if (bytes.all == 0 || now >= deadline || now - lastProgress >= UNANSWERED_LIMIT ||
            HasPeerSentEnd(socket->Socket())) {
            return;
        }
        pauseMs = std::min(pauseMs + 1, LONGEST_TAKEN_PAUSE_MS);
        poll(nullptr, 0, pauseMs);
        socket = Socket();
    }
}

std::shared_ptr<Connection> TcpSender::Socket() {
    const lumora::MutexLock lock(mSocketMutex);
    return mSocket;
}

// The shutdown sends the FIN and wakes a writer in poll, also while that writer still holds the descriptor.
// It stands outside of the mutex, as any system call; the local reference keeps the descriptor open.
void TcpSender::SetSocket(std::shared_ptr<Connection> socket) {
    {
        const lumora::MutexLock lock(mSocketMutex);
        mSocket.swap(socket);
    }
    if (socket != nullptr) {
        socket->SayEnd();
        shutdown(socket->Socket().Number(), SHUT_RDWR);
    }
}

}  // namespace lumoraAiModule
