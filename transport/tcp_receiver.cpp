#include "transport/tcp_receiver.h"

#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <system_error>
#include <utility>

#include "base/thread.h"
#include "library/log.h"
#include "protocol/data_frame.h"
#include "transport/operation_names.h"

namespace lumoraAiModule {

namespace {

// One peer is expected. The rest is room for strangers, so that their connections do not keep the peer's out.
constexpr int LISTEN_BACKLOG = 10;
constexpr char WAIT_FOR_CONNECT[] = "WaitForConnect";
// A failed send clears the running flag only; it does not shut this socket down. So a read that waits has to
// return by itself now and then to look at the flag.
constexpr int READ_WAIT_US = 500000;  // after it, a read that waits looks whether it shall go on
// A host that dies sends its resets and FINs within milliseconds. The rest is time for a loaded host and for
// one retransmission.
constexpr std::chrono::milliseconds LOST_PEER_LOOK{1000};
// The same for a peer that has closed the connection to it: a slow callback may have much left to take.
constexpr std::chrono::milliseconds LEAVING_PEER_LIMIT{10000};
// So long after the last bytes a stop waits for more. A host that missed the news of our open window asks for
// it after 200 ms at the earliest.
constexpr std::chrono::milliseconds REST_PAUSE{300};
// The same in the middle of a frame: its end is known to follow, and only a host that died sends none.
constexpr std::chrono::milliseconds FRAME_PAUSE{2000};
constexpr std::chrono::milliseconds LOOK_INTERVAL{5};  // whether the receive thread has read all
constexpr int LOST_PEER_PAUSE_MS = 20;    // how soon a stop is noticed while a lost peer is looked for
constexpr int ACCEPT_PAUSE_MS = 2;        // the same while the peer is waited for
constexpr int NOTHING_READ_PAUSE_MS = 1;  // after select promised data and read found none
// With the pause above about half a second, as for a send without progress.
constexpr unsigned int NOTHING_READ_LIMIT = 500;

}  // namespace

// The receive thread holds its transport while it runs. So it has either ended, or it drops the last
// reference and runs this destructor itself. A thread that joins itself fails with an exception, and a
// joinable std::thread that is destroyed ends the process; so it is detached.
TcpReceiver::~TcpReceiver() {
    if (!mReceiveThread.joinable()) {
        return;
    }
    if (mReceiveThread.get_id() == std::this_thread::get_id()) {
        mReceiveThread.detach();
    } else {
        mReceiveThread.join();
    }
}

// A receiving direction that was created before is ended first. mStopped is cleared only after the join: the
// old thread must still see that it was stopped, or it reports the end of its connection as a loss.
int TcpReceiver::Listen(const std::string& addr, int port, int& error) {
    Stop();
    Join();  // of a receiving direction that was created before
    {
        const lumora::MutexLock lock(mReceiveSocketMutex);
        mStopped = false;
        mPeerHadLeft = false;
        mRest = Rest::DROPPED;
        mHandOverEnd = {};
        mArrivedAtStop = 0;
        mDropsRest = false;
        mPeer = Peer::AWAITED;
    }
    mExpectedPeer = ExpectedPeer(addr);
    mState.peerLeaves = false;
    mState.isDropped = false;
    mState.running = true;
    return SetupReceiverSocket(port, mListenSocket, error);
}

int TcpReceiver::SetupReceiverSocket(int port, Descriptor& listenSocket, int& error) {
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
        mHandler.OnListenFailed();
        return -1;
    }
    listenSocket = std::move(socket);
    return 0;
}

int TcpReceiver::BindAndListen(const Descriptor& socket, const sockaddr_in& address, int& error) {
    if (bind(socket.Number(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
        error = errno;
        LogBindError(mSide, error);
        return -1;
    }
    LogBound(mSide, address.sin_port);
    if (listen(socket.Number(), LISTEN_BACKLOG) != 0) {
        error = errno;
        LogListenError(mSide, error);
        return -1;
    }
    return 0;
}

// The thread clears its ID when it ends, because the C library gives the IDs of ended threads to new ones:
// Join would take one of these for the receive thread. Without a thread the port is closed again, so that
// peers are refused.
int TcpReceiver::StartThread(std::shared_ptr<void> owner) {
    const lumora::MutexLock lock(mThreadMutex);
    const lumora::AllSignalsBlocked blocked;
    try {
        mReceiveThread = std::thread([this, owner = std::move(owner)] {
            mReceiveThreadId = std::this_thread::get_id();
            mHandler.ReceiveThread();
            mReceiveThreadId = std::thread::id();
        });
    } catch (const std::system_error& failure) {
        LUMORA_LOG_AS(lumora::LOG_ERROR, CREATE_TRANSPORTS, "create receive thread error: %s\n",
                      failure.what());
        mState.running = false;
        CloseSocket();
        return -1;
    }
    return 0;
}

bool TcpReceiver::AllocateReadBuffer(FrameBuffer& readBuffer) {
    if (!readBuffer.AllocatePages(READ_SIZE + FRAME_SPARE_LENGTH)) {
        LUMORA_LOG_AS(lumora::LOG_ERROR, ReceiveThreadName(mSide), "new memory failed, low memory!\n");
        return false;
    }
    return true;
}

bool TcpReceiver::AcceptAndReceive(FrameBuffer& readBuffer) {
    if (WaitForConnect() != 0) {
        CloseSocket();
        readBuffer.Release();
        LUMORA_LOG_AS(lumora::LOG_ERROR, ReceiveThreadName(mSide), "WaitForConnect failed!\n");
        return false;
    }
    if (mReceiveSocket.IsOpen()) {  // there is none when the transport was stopped before the peer came
        ReceiveLoop(readBuffer.Bytes());
    }
    readBuffer.Release();
    CloseSocket();
    mState.running = false;
    return true;
}

// Waits as long as the module lets it: if setting up the channel fails, the module stops the transport.
// EMFILE ends the wait too: an application without free descriptors gets no channel.
int TcpReceiver::WaitForConnect() {
    const ChannelProtection::Decision decision = mState.protection.Current();
    PeerCandidates candidates(mSide == Side::CLIENT ? lumora::ChannelKeys::Direction::TO_CLIENT
                                                    : lumora::ChannelKeys::Direction::TO_DEVICE,
                              mExpectedPeer);
    const bool isPlain = decision.isMade && decision.keys == nullptr;
    return isPlain ? WaitForAnyPeer(candidates) : WaitForProvenPeer(candidates);
}

// A plain channel knows its peer by the address alone. Connections that were accepted before it was known to
// be plain come first.
int TcpReceiver::WaitForAnyPeer(PeerCandidates& candidates) {
    mExpectedPeer.Begin(ExpectedPeer::Clock::now());
    while (MayWaitForPeer()) {
        in_addr from = {};
        Descriptor accepted = candidates.TakeOne(from);
        if (!accepted.IsOpen()) {
            accepted = AcceptConnection(mListenSocket, from);
        }
        const bool isAccepted = accepted.IsOpen();
        const int error = errno;
        if (UseIfExpected(std::move(accepted), from)) {
            return 0;
        }
        if (isAccepted) {  // from elsewhere: the expected one may be right behind it
            continue;
        }
        if (error != EAGAIN) {
            LUMORA_LOG_AS(lumora::LOG_ERROR, WAIT_FOR_CONNECT, "accept socket error: %s(errno: %d)\n",
                          ErrorText(error).c_str(), error);
            return -1;
        }
        if (!mState.running) {  // all that had connected before the stop have been looked at
            return 0;
        }
        LUMORA_LOG_AS(lumora::LOG_DETAIL, WAIT_FOR_CONNECT, "wait for connections\n");
        PauseUntilReady(mListenSocket.Number(), POLLIN, ACCEPT_PAUSE_MS);
    }
    return 0;
}

bool TcpReceiver::UseIfExpected(Descriptor accepted, in_addr from) {
    Descriptor connection = mExpectedPeer.Choose(std::move(accepted), from, ExpectedPeer::Clock::now());
    if (!connection.IsOpen()) {
        return false;
    }
    TuneConnection(connection);
    LimitReadWaits(connection, READ_WAIT_US);
    TakePeer(Connection(std::move(connection)));
    return true;
}

void TcpReceiver::TakePeer(Connection connection) {
    const lumora::MutexLock lock(mReceiveSocketMutex);
    mReceiveSocket = std::move(connection);
    if (mStopped) {
        // The stop came first and saw no connection. What has arrived waited for this thread.
        mArrivedAtStop = BytesArrived(mReceiveSocket.Socket());
    }
    mPeer = Peer::CAME;
    mPeerChanged.NotifyAll();
}

// The thread has two handshakes to go on with, so neither blocks:
//   device          connects to the client and begins one while it handles the setup request
//   client          answers it when the reply to that request has brought the keys
//   client          then connects to the device and begins the other
int TcpReceiver::WaitForProvenPeer(PeerCandidates& candidates) {
    std::array<pollfd, PeerCandidates::MOST + 2> watched = {};
    bool hasPeer = false;
    while (mState.running) {
        const ChannelProtection::Decision decision = mState.protection.Current();
        if (decision.isMade && decision.keys == nullptr) {
            return WaitForAnyPeer(candidates);
        }
        if (!hasPeer) {
            const auto now = PeerCandidates::Clock::now();
            if (!candidates.Accept(mListenSocket, now)) {
                const int error = errno;
                LUMORA_LOG_AS(lumora::LOG_ERROR, WAIT_FOR_CONNECT, "accept socket error: %s(errno: %d)\n",
                              ErrorText(error).c_str(), error);
                return -1;
            }
            Connection peer;
            hasPeer = decision.isMade && candidates.FindPeer(*decision.keys, now, peer);
            if (hasPeer) {
                TakePeer(std::move(peer));
                candidates.Close();
            }
        }
        candidates.Watch(mListenSocket, watched.data());
        watched[PeerCandidates::MOST].fd = hasPeer ? -1 : watched[PeerCandidates::MOST].fd;
        watched.back().fd = -1;
        if (!mHandler.GoOnWithSending(watched.back()) && hasPeer) {
            return 0;
        }
        poll(watched.data(), watched.size(), ACCEPT_PAUSE_MS);
    }
    return 0;
}

bool TcpReceiver::WaitForPeer(std::chrono::milliseconds limit) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    const lumora::MutexLock lock(mReceiveSocketMutex);
    while (mPeer == Peer::AWAITED && std::chrono::steady_clock::now() < deadline) {
        mPeerChanged.WaitUntil(mReceiveSocketMutex, deadline);
    }
    return mPeer == Peer::CAME;
}

// The queue is empty for a moment, too, if our window was full: the peer's host goes on when there is room.
void TcpReceiver::WaitUntilRead(std::chrono::milliseconds limit) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    auto lastSeen = std::chrono::steady_clock::time_point();
    const lumora::MutexLock lock(mReceiveSocketMutex);
    while (mPeer == Peer::CAME && !mStopped && !mDropsRest) {
        const auto now = std::chrono::steady_clock::now();
        if (BytesArrived(mReceiveSocket.Socket()) > 0 || HasPeerSentEnd(mReceiveSocket.Socket())) {
            lastSeen = now;
        }
        if (now >= deadline || now - lastSeen >= REST_PAUSE) {
            return;
        }
        mPeerChanged.WaitUntil(mReceiveSocketMutex, std::min(deadline, now + LOOK_INTERVAL));
    }
}

// Ends when the connection does, when the transport is stopped, or when a send failed.
void TcpReceiver::ReceiveLoop(char* readBuffer) {
    mWouldBlockReads = 0;
    // Bytes behind a handshake may have been read with it, and the wait would not see them.
    bool dataCame = mReceiveSocket.HasPending();
    bool goesOn = true;
    while (goesOn && mState.running) {
        goesOn = ReceiveOnce(readBuffer, dataCame);
    }
    if (goesOn) {
        LookForLostPeer(readBuffer);
    }
    HandOverRest(readBuffer);
}

// While data keeps arriving, the thread blocks in read() (SO_RCVTIMEO) instead of select() and read(): one
// system call less for each piece. A read that comes back empty-handed from such a wait does not count
// against the budget: nothing had promised it data. Nor does one on a protected connection, where data that
// came may be a part of a piece that cannot be read yet. False ends the loop.
bool TcpReceiver::ReceiveOnce(char* readBuffer, bool& dataCame) {
    const ReceiveWait::Result result = dataCame ? ReceiveWait::Result::READABLE : WaitForData();
    if (result != ReceiveWait::Result::READABLE) {
        return result == ReceiveWait::Result::NOT_YET;
    }
    char* data = nullptr;
    const ssize_t count = ReadSome(readBuffer, data);
    if (count > 0) {
        dataCame = true;
        return mHandler.OnReceived(data, static_cast<unsigned int>(count));
    }
    const int error = errno;
    const bool waited = std::exchange(dataCame, false);
    if ((waited || mReceiveSocket.IsProtected()) && WouldBlock(error)) {
        // The wait ran out, or the process was halted meanwhile. A protected connection may have to write
        // before it can read on.
        if (mReceiveSocket.IsProtected() && mReceiveSocket.Wanted() == POLLOUT) {
            dataCame = true;
            PauseUntilReady(mReceiveSocket.Socket().Number(), POLLOUT, LOST_PEER_PAUSE_MS);
        }
        return true;
    }
    return !HasBeenStopped() && OnNothingRead(error);
}

// OnWaitEnded may make system calls, so errno is saved before it.
ReceiveWait::Result TcpReceiver::WaitForData() {
    const ReceiveWait::Result result = mState.receiveWait.ForData(mReceiveSocket.Socket());
    const int error = errno;
    mHandler.OnWaitEnded();
    if (result == ReceiveWait::Result::FAILED) {
        LUMORA_LOG_AS(lumora::LOG_ERROR, ReceiveThreadName(mSide), "select error, ret = %d(%s)\n", -1,
                      ErrorText(error).c_str());
    }
    return result;
}

// The cutter may look at bytes behind the data (see FRAME_SPARE_LENGTH). Both buffers have room for that many
// zeros behind any read.
ssize_t TcpReceiver::ReadSome(char* readBuffer, char*& data, Waits waits) {
    unsigned int most = 0;
    data = mStream.ReadPosition(readBuffer, most);
    errno = 0;  // the end of the stream leaves it alone, and must not look like a read that would block
    const bool isWaiting = waits == Waits::YES && MayWaitInRead();
    const ssize_t count = isWaiting ? mReceiveSocket.Read(data, most) : mReceiveSocket.ReadAtOnce(data, most);
    mWaitsInRead = false;
    if (count > 0) {
        std::memset(data + count, 0, FRAME_SPARE_LENGTH);
    }
    return count;
}

// Either this thread sees that the transport is being stopped, or Stop sees that this thread is about to
// wait.
bool TcpReceiver::MayWaitInRead() {
    mWaitsInRead = !mReceiveSocket.IsProtected();
    return mState.running;
}

// After StopReading, read() returns 0, exactly as after a close by the peer; mPeerHadLeft tells them apart.
// If the peer had left before the stop, the end is reported as its own.
bool TcpReceiver::HasBeenStopped() {
    const lumora::MutexLock lock(mReceiveSocketMutex);
    return mStopped && !mPeerHadLeft;
}

bool TcpReceiver::IsDiscarding() {
    const lumora::MutexLock lock(mReceiveSocketMutex);
    return mState.isDropped || (mStopped && std::chrono::steady_clock::now() >= mHandOverEnd);
}

// A send failed, or the sending direction was closed. When the peer dies, one connection may meet its reset
// before the close of the other arrives. If the thread ended at once, OnDisconnect would never be called:
// that happened for three in ten devices that died under a stream. The close arrives behind the data sent
// before. They are handed over: a peer that leaves in order closes both connections at once, and its last
// frames may be unread when a send meets the close of the other one. A peer that only reads no more may go on
// sending without end, so it gets the shorter time.
void TcpReceiver::LookForLostPeer(char* readBuffer) {
    const auto begin = std::chrono::steady_clock::now();
    const auto deadline = begin + (mState.peerLeaves ? LEAVING_PEER_LIMIT : LOST_PEER_LOOK);
    auto lastCame = begin;
    while (!HasBeenStopped() &&
           std::chrono::steady_clock::now() < std::min(deadline, lastCame + LOST_PEER_LOOK)) {
        char* data = nullptr;
        const ssize_t count = ReadSome(readBuffer, data, Waits::NO);
        const int error = count < 0 ? errno : 0;
        if (count > 0) {
            if (!IsDiscarding() && !mHandler.OnReceived(data, static_cast<unsigned int>(count))) {
                return;
            }
            lastCame = std::chrono::steady_clock::now();
            continue;
        }
        if (count == 0 || !WouldBlock(error)) {
            if (!HasBeenStopped()) {
                mHandler.OnConnectionLost(error);
            }
            return;
        }
        PauseUntilReady(mReceiveSocket.Socket().Number(), POLLIN, LOST_PEER_PAUSE_MS);
    }
}

// Runs only after a stop that hands over the rest. The queue of the socket may be empty for a moment while
// the peer's host still has bytes to send: our window was full, and opens as this thread reads.
void TcpReceiver::HandOverRest(char* readBuffer) {
    if (!IsHandingOver() && !IsRestOver()) {
        return;
    }
    unsigned int total = 0;
    auto lastCame = std::chrono::steady_clock::now();
    while (IsHandingOver()) {
        char* data = nullptr;
        const ssize_t count = ReadSome(readBuffer, data, Waits::NO);
        const int error = errno;
        if (count > 0) {
            total += static_cast<unsigned int>(count);
            if (!mHandler.OnReceived(data, static_cast<unsigned int>(count))) {
                return;
            }
            lastCame = std::chrono::steady_clock::now();
        } else if (count < 0 ? !WouldBlock(error) : mReceiveSocket.IsProtected()) {
            return;  // it broke, or told its end
        }
        if (IsRestComplete(total, lastCame)) {
            return;
        }
        if (count <= 0) {
            poll(nullptr, 0, NOTHING_READ_PAUSE_MS);
        }
    }
    const unsigned int dropped = BytesArrived(mReceiveSocket.Socket()) + mStream.Held().Length();
    if (dropped > 0) {
        LUMORA_LOG_AS(lumora::LOG_WARNING, ReceiveThreadName(mSide),
                      "The stop drops %u bytes that had arrived.\n", dropped);
    }
}

// A shutdown of the read side reads as an end of the stream whenever the queue is empty, so the end is asked
// of the connection. What arrived before the peer's end is in the queue when the state tells of that end.
bool TcpReceiver::IsRestComplete(unsigned int count, std::chrono::steady_clock::time_point lastCame) {
    const bool hasSentEnd = HasPeerSentEnd(mReceiveSocket.Socket());
    {
        const lumora::MutexLock lock(mReceiveSocketMutex);
        if (mRest == Rest::ARRIVED && !hasSentEnd && count >= mArrivedAtStop) {
            return true;
        }
    }
    if (BytesArrived(mReceiveSocket.Socket()) > 0 || mReceiveSocket.HasPending()) {
        return false;
    }
    const bool isInFrame = mStream.Held().Length() > 0;
    const bool mayFollow = !hasSentEnd && (count > 0 || isInFrame);
    return !mayFollow ||
           std::chrono::steady_clock::now() - lastCame >= (isInFrame ? FRAME_PAUSE : REST_PAUSE);
}

bool TcpReceiver::IsHandingOver() {
    const lumora::MutexLock lock(mReceiveSocketMutex);
    return mStopped && std::chrono::steady_clock::now() < mHandOverEnd;
}

// A stop that hands over nothing lets the frames of one read reach the application, as the read had begun.
bool TcpReceiver::IsRestOver() {
    const lumora::MutexLock lock(mReceiveSocketMutex);
    return mStopped && mRest != Rest::DROPPED && std::chrono::steady_clock::now() >= mHandOverEnd;
}

void TcpReceiver::HandOverOnStop(Rest rest, std::chrono::milliseconds limit) {
    const lumora::MutexLock lock(mReceiveSocketMutex);
    mRest = rest;
    mRestLimit = limit;
}

void TcpReceiver::DropRest() {
    const lumora::MutexLock lock(mReceiveSocketMutex);
    mDropsRest = true;
    mHandOverEnd = {};
    mPeerChanged.NotifyAll();
}

// select may report a socket whose read then would block, so such reads have a budget. After an end of the
// stream error is 0.
bool TcpReceiver::OnNothingRead(int error) {
    if (error == EAGAIN) {
        PauseUntilReady(mReceiveSocket.Socket().Number(), POLLIN, NOTHING_READ_PAUSE_MS);
        if (mWouldBlockReads++ <= NOTHING_READ_LIMIT) {
            return true;
        }
        if (!mHandler.OnReceiveTimeout()) {
            return false;
        }
    }
    mHandler.OnConnectionLost(error);
    return false;
}

// Taken out under the mutex, because Stop may be about to shut the socket down. After the close its number
// may already belong to another file of the application. The close itself may write, so it comes after the
// mutex.
void TcpReceiver::CloseSocket() {
    Connection closed;
    const lumora::MutexLock lock(mReceiveSocketMutex);
    closed = std::move(mReceiveSocket);
    mListenSocket.Close();
    mPeer = Peer::NONE;
    mPeerChanged.NotifyAll();
}

// The look comes before StopReading, because our own shutdown sets POLLRDHUP as well. Only the first of
// several stops looks, for the same reason. A thread that still waits for the peer notices the flag within
// ACCEPT_PAUSE_MS. If the rest is handed over, only the wait is ended: after StopReading the kernel tells the
// peer no more when there is room again, and a protected connection takes an empty queue for a connection
// that was cut off. A read that waits has no other end; nothing had arrived then.
void TcpReceiver::Stop() {
    const lumora::MutexLock lock(mReceiveSocketMutex);
    mState.running = false;
    if (std::exchange(mStopped, true)) {
        return;
    }
    const bool handsOver = mRest != Rest::DROPPED && !mDropsRest;
    mHandOverEnd = handsOver ? std::chrono::steady_clock::now() + mRestLimit : mHandOverEnd;
    if (!mReceiveSocket.IsOpen()) {
        return;
    }
    mPeerHadLeft = HasPeerLeft(mReceiveSocket.Socket());
    mArrivedAtStop = BytesArrived(mReceiveSocket.Socket());
    if (handsOver) {
        mState.receiveWait.End();
    }
    if (!handsOver || mWaitsInRead) {
        StopReading(mReceiveSocket.Socket());
    }
}

// The receive thread must not wait for its own end: its callbacks may stop the transport. Two other threads
// may join at once; the mutex lets one wait for the other, because joining a std::thread twice is undefined.
// A thread that could not allocate its buffer has left the sockets open.
void TcpReceiver::Join() {
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
