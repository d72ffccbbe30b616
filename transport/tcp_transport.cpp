#include "transport/tcp_transport.h"

#include <arpa/inet.h>
#include <poll.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <system_error>
#include <utility>

#include "base/log.h"
#include "base/thread.h"
#include "protocol/data_frame.h"
#include "securec.h"
#include "transport/operation_names.h"

namespace lumoraAiModule {

namespace {

constexpr int LISTEN_BACKLOG = 10;
constexpr int RECEIVE_WAIT_US = 500000;
constexpr int LOST_PEER_PAUSE_MS = 20;
constexpr int ACCEPT_PAUSE_MS = 2;
constexpr int WOULD_BLOCK_PAUSE_MS = 1;
constexpr unsigned int WOULD_BLOCK_LIMIT = 500;

in_port_t NetworkPort(int port) { return htons(static_cast<std::uint16_t>(port)); }

bool WouldBlock(int error) { return error == EAGAIN || error == EWOULDBLOCK || error == EINTR; }

}  // namespace

TcpTransport::~TcpTransport() {
    // The thread holds a reference while it runs: it has either ended or runs this destructor.
    if (!mReceiveThread.joinable()) {
        return;
    }
    if (mReceiveThread.get_id() == std::this_thread::get_id()) {
        mReceiveThread.detach();
    } else {
        mReceiveThread.join();
    }
}

int TcpTransport::DestoryTransports() {
    SetSendSocket(nullptr);
    mRunning = false;
    mBroken = false;
    return 0;
}

int TcpTransport::GetTransStatus(LUM_TRANSPORT_STATUS_E& status) {
    status = mTransStatus;
    LUMORA_DETAIL("mTransStatus :%d \n", static_cast<int>(status));
    return 0;
}

// ---- Setting up ----

int TcpTransport::BeginReceiving(const std::string& addr, int port) {
    StopReceiving();
    JoinReceiveThread();  // of a receive direction that was created before
    {
        const lumora::MutexLock lock(mReceiveSocketMutex);
        mStopped = false;
        mPeerHadLeft = false;
    }
    mExpectedPeer = ExpectedPeer(addr);
    mRunning = true;
    int error = 0;
    if (SetupReceiverSocket(port, mListenSocket, error) != 0) {
        LUMORA_LOG_AS(lumora::LOG_ERROR, CREATE_TRANSPORTS, "SetupSocket error: %d\n", error);
        return -1;
    }
    return 0;
}

int TcpTransport::BeginSending(const std::string& addr, int port, int limitSeconds) {
    int error = 0;
    if (SetupSenderSocket(port, addr, limitSeconds, error) != 0) {
        LUMORA_LOG_AS(lumora::LOG_ERROR, CREATE_TRANSPORTS, "SetupSocket error: %d\n", error);
        return -1;
    }
    return 0;
}

int TcpTransport::SetupReceiverSocket(int port, Descriptor& listenSocket, int& error) {
    Descriptor socket = OpenStreamSocket();
    if (!socket.IsOpen()) {
        error = errno;
        LUMORA_ERROR("create socket error: %s(errno: %d)\n", ErrorText(error).c_str(), error);
        return -1;
    }
    SetNonBlocking(socket);
    LUMORA_DETAIL("set non-blocking socket Succ, port = : %d\n", port);

    sockaddr_in address;
    if (FillAddress(SETUP_RECEIVER_SOCKET, port, address) != 0) {
        return -1;
    }
    if (SetReuseAddress(socket) != 0) {
        LUMORA_ERROR("setsockopt error :%s(errno:%d)\n", ErrorText(errno).c_str(), errno);
        return -1;
    }
    if (BindAndListen(socket, address, error) != 0) {
        StopTransports();
        return -1;
    }
    listenSocket = std::move(socket);
    return 0;
}

// Fills in INADDR_ANY; callers that connect overwrite it.
int TcpTransport::FillAddress(const char* operation, int port, sockaddr_in& address) {
    if (memset_s(&address, sizeof(address), 0, sizeof(address)) != 0) {
        LUMORA_LOG_AS(lumora::LOG_ERROR, operation, "memset_s failed\n");
        return -1;
    }
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_ANY);
    address.sin_port = NetworkPort(port);
    return 0;
}

int TcpTransport::BindAndListen(const Descriptor& socket, const sockaddr_in& address, int& error) {
    if (bind(socket.Number(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
        error = errno;
        LogBindError(error);
        return -1;
    }
    LogBound(address.sin_port);
    if (listen(socket.Number(), LISTEN_BACKLOG) != 0) {
        error = errno;
        LogListenError(error);
        return -1;
    }
    return 0;
}

int TcpTransport::SetupSenderSocket(int port, const std::string& addr, int limitSeconds, int& error) {
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
    SetSendSocket(std::move(socket));
    return 0;
}

int TcpTransport::StartReceiveThread() {
    const lumora::MutexLock lock(mThreadMutex);
    const lumora::AllSignalsBlocked blocked;
    try {
        mReceiveThread = std::thread([self = shared_from_this()] {
            self->mReceiveThreadId = std::this_thread::get_id();
            self->ReceiveThread();
            self->mReceiveThreadId = std::thread::id();
        });
    } catch (const std::system_error& failure) {
        LUMORA_LOG_AS(lumora::LOG_ERROR, CREATE_TRANSPORTS, "create receive thread error: %s\n",
                      failure.what());
        mRunning = false;
        CloseSocket();
        return -1;
    }
    return 0;
}

// ---- Receiving ----

bool TcpTransport::AllocateReadBuffer(FrameBuffer& readBuffer) {
    if (!readBuffer.AllocatePages(READ_SIZE + FRAME_SPARE_LENGTH)) {
        LUMORA_LOG_AS(lumora::LOG_ERROR, ReceiveThreadName(), "new memory failed, low memory!\n");
        return false;
    }
    return true;
}

bool TcpTransport::AcceptAndReceive(FrameBuffer& readBuffer) {
    if (WaitForConnect(mReceiveSocket, mListenSocket) != 0) {
        CloseSocket();
        readBuffer.Release();
        LUMORA_LOG_AS(lumora::LOG_ERROR, ReceiveThreadName(), "WaitForConnect failed!\n");
        return false;
    }
    if (mReceiveSocket.IsOpen()) {  // there is none when the transport was stopped before the peer came
        ReceiveLoop(readBuffer.Bytes());
    }
    readBuffer.Release();
    CloseSocket();
    mRunning = false;
    return true;
}

int TcpTransport::WaitForConnect(Descriptor& receiveSocket, const Descriptor& listenSocket) {
    mExpectedPeer.Begin(ExpectedPeer::Clock::now());
    while (mRunning) {
        in_addr from = {};
        Descriptor accepted = AcceptConnection(listenSocket, from);
        const bool isAccepted = accepted.IsOpen();
        const int error = errno;
        Descriptor connection = mExpectedPeer.Choose(std::move(accepted), from, ExpectedPeer::Clock::now());
        if (connection.IsOpen()) {
            TuneConnection(connection);
            LimitReadWaits(connection, RECEIVE_WAIT_US);
            const lumora::MutexLock lock(mReceiveSocketMutex);
            receiveSocket = std::move(connection);
            return 0;
        }
        if (isAccepted) {  // from elsewhere: the expected one may be right behind it
            continue;
        }
        if (error != EAGAIN) {
            LUMORA_ERROR("accept socket error: %s(errno: %d)\n", ErrorText(error).c_str(), error);
            return -1;
        }
        LUMORA_DETAIL("wait for connections\n");
        PauseUntilReady(listenSocket.Number(), POLLIN, ACCEPT_PAUSE_MS);
    }
    return 0;
}

// Ends when the connection does, when the transport is stopped, or when a send failed.
void TcpTransport::ReceiveLoop(char* readBuffer) {
    mWouldBlockReads = 0;
    bool dataCame = false;
    while (mRunning) {
        if (!ReceiveOnce(readBuffer, dataCame)) {
            return;
        }
    }
    LookForLostPeer(readBuffer);
}

// While data keeps arriving, the thread blocks in read() (SO_RCVTIMEO) instead of select() and read(): one
// system call less for each piece. False ends the loop.
bool TcpTransport::ReceiveOnce(char* readBuffer, bool& dataCame) {
    const Readiness readiness = dataCame ? Readiness::READABLE : WaitUntilReadable();
    if (readiness != Readiness::READABLE) {
        return readiness == Readiness::NOT_YET;
    }
    char* data = nullptr;
    const ssize_t count = ReadSome(readBuffer, data);
    if (count > 0) {
        dataCame = true;
        return OnReceived(data, static_cast<unsigned int>(count));
    }
    const int error = errno;
    const bool waited = std::exchange(dataCame, false);
    if (waited && WouldBlock(error)) {  // the wait ran out, or the process was halted meanwhile
        return true;
    }
    return !HasBeenStopped() && OnNothingRead(error);
}

TcpTransport::Readiness TcpTransport::WaitUntilReadable() {
    fd_set readable;
    FD_ZERO(&readable);
    FD_SET(mReceiveSocket.Number(), &readable);
    timeval timeout = {0, RECEIVE_WAIT_US};
    const int ret = select(mReceiveSocket.Number() + 1, &readable, nullptr, nullptr, &timeout);
    if (ret < 0) {
        LUMORA_LOG_AS(lumora::LOG_ERROR, ReceiveThreadName(), "select error, ret = %d(%s)\n", ret,
                      ErrorText(errno).c_str());
        return Readiness::FAILED;
    }
    return ret > 0 ? Readiness::READABLE : Readiness::NOT_YET;
}

ssize_t TcpTransport::ReadSome(char* readBuffer, char*& data) {
    // The rest of a pending frame is read straight to where it is needed, and never more than there is room
    // for: a frame of the largest size fits, a frame and a whole read might not.
    const bool continues = LeftOverPending() && mReassembly.Room() > 0;
    data = continues ? mReassembly.End() : readBuffer;
    const unsigned int most = continues ? std::min(mReassembly.Room(), READ_SIZE) : READ_SIZE;
    errno = 0;  // the end of the stream leaves it alone, and must not look like a read that would block
    const ssize_t count = read(mReceiveSocket.Number(), data, most);
    if (count > 0) {
        std::memset(data + count, 0, FRAME_SPARE_LENGTH);
    }
    return count;
}

// After StopReading, read() returns 0, exactly as after a close by the peer; mPeerHadLeft tells them apart.
bool TcpTransport::HasBeenStopped() {
    const lumora::MutexLock lock(mReceiveSocketMutex);
    return mStopped && !mPeerHadLeft;
}

// A send failed. When the peer has died, the close of this connection arrives a little before or after the
// error of the other one, behind what the peer had sent before: that has to be read, because a full receive
// window holds the close back. Without this look a client would not learn of the end of three in ten devices
// that die under a stream. It lasts as long as one more wait would have taken; a stop ends it.
void TcpTransport::LookForLostPeer(char* readBuffer) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::microseconds(RECEIVE_WAIT_US);
    while (!HasBeenStopped() && std::chrono::steady_clock::now() < deadline) {
        const ssize_t count = recv(mReceiveSocket.Number(), readBuffer, READ_SIZE, MSG_DONTWAIT);
        const int error = count < 0 ? errno : 0;
        if (count > 0) {
            continue;
        }
        if (count == 0 || !WouldBlock(error)) {
            if (!HasBeenStopped()) {
                OnConnectionLost(error);
            }
            return;
        }
        PauseUntilReady(mReceiveSocket.Number(), POLLIN, LOST_PEER_PAUSE_MS);
    }
}

bool TcpTransport::OnNothingRead(int error) {
    if (error == EAGAIN) {
        PauseUntilReady(mReceiveSocket.Number(), POLLIN, WOULD_BLOCK_PAUSE_MS);
        if (mWouldBlockReads++ <= WOULD_BLOCK_LIMIT) {
            return true;
        }
        if (!OnReceiveTimeout()) {
            return false;
        }
    }
    OnConnectionLost(error);
    return false;
}

void TcpTransport::CloseSocket() {
    const lumora::MutexLock lock(mReceiveSocketMutex);
    mReceiveSocket.Close();
    mListenSocket.Close();
}

int TcpTransport::ParseAndSendData(char* data, unsigned int length) {
    unsigned int consumed = 0;
    std::atomic<bool>& pending = LeftOverPending();
    if (!pending) {
        CutFrames(data, length, consumed);
        if (consumed < length) {
            if (mReassembly.Append(data + consumed, length - consumed) != 0) {
                return -1;
            }
            pending = true;
        }
        return 0;
    }
    if (mReassembly.Append(data, length) != 0) {
        return -1;
    }
    const unsigned int headLength = std::max(HeadLengthOf(mReassembly.Data()), MinimumHeadLength());
    if (headLength > mReassembly.Length()) {
        return 0;
    }
    if (mReassembly.Length() >= PendingFrameLength()) {
        CutFrames(mReassembly.Data(), mReassembly.Length(), consumed);
        mReassembly.Consume(consumed);
        if (mReassembly.Length() == 0) {
            pending = false;
            return 0;
        }
        if (mReassembly.CopyLeftDataToBuffer(consumed) != 0) {
            LUMORA_ERROR("CopyLeftDataToBuffer failed!\n");
            return -1;
        }
    }
    pending = true;
    return 0;
}

// ---- Sending ----

int TcpTransport::WriteAll(const std::shared_ptr<Descriptor>& socket, const char* data, unsigned int length,
                           unsigned int* written) {
    unsigned int wouldBlockWrites = 0;
    *written = 0;
    while (*written < length && MayWrite()) {
        const ssize_t count = send(socket->Number(), data + *written, length - *written, MSG_NOSIGNAL);
        if (count >= 0) {
            wouldBlockWrites = 0;
            *written += static_cast<unsigned int>(count);
        } else {
            const int error = errno;
            if (!WouldBlock(error)) {
                LogWriteError(error);
                mRunning = false;
                SetSendSocket(nullptr);
                return -1;
            }
            if (!PauseBeforeNextWrite(*socket, error, wouldBlockWrites)) {
                return 0;
            }
        }
        if (*written < length && SendSocket() != socket) {  // it was closed meanwhile
            return 0;
        }
    }
    return 0;
}

bool TcpTransport::PauseBeforeNextWrite(const Descriptor& socket, int error, unsigned int& wouldBlockWrites) {
    PauseUntilReady(socket.Number(), POLLOUT, WOULD_BLOCK_PAUSE_MS);
    if (wouldBlockWrites++ <= WOULD_BLOCK_LIMIT) {
        return true;
    }
    LUMORA_LOG_AS(lumora::LOG_ERROR, SEND_DATA, "SendData timeout: %s(errno: %d)\n", ErrorText(error).c_str(),
                  error);
    mBroken = true;
    mRunning = false;
    SetSendSocket(nullptr);
    return false;
}

std::shared_ptr<Descriptor> TcpTransport::SendSocket() {
    const lumora::MutexLock lock(mSendSocketMutex);
    return mSendSocket;
}

// A writer that is in the middle of a send keeps the old socket open until it has noticed.
void TcpTransport::SetSendSocket(std::shared_ptr<Descriptor> socket) {
    {
        const lumora::MutexLock lock(mSendSocketMutex);
        mSendSocket.swap(socket);
    }
    if (socket != nullptr && socket->IsOpen()) {
        shutdown(socket->Number(), SHUT_RDWR);
    }
}

// ---- Stopping ----

void TcpTransport::StopReceiving() {
    const lumora::MutexLock lock(mReceiveSocketMutex);
    mRunning = false;
    if (!std::exchange(mStopped, true) && mReceiveSocket.IsOpen()) {
        mPeerHadLeft = HasPeerLeft(mReceiveSocket);
        StopReading(mReceiveSocket);
    }
}

void TcpTransport::JoinReceiveThread() {
    if (mReceiveThreadId == std::this_thread::get_id()) {
        return;
    }
    const lumora::MutexLock lock(mThreadMutex);
    if (mReceiveThread.joinable()) {
        LUMORA_LOG_AS(lumora::LOG_DETAIL, STOP_TRANSPORTS, "joinable will join.\n");
        mReceiveThread.join();
    }
    CloseSocket();
}

}  // namespace lumoraAiModule
