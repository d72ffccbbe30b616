// The receiving direction of a data channel: listens, accepts the peer, and reads on a thread of its own.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <thread>

#include "base/mutex.h"
#include "transport/channel_state.h"
#include "transport/connection.h"
#include "transport/expected_peer.h"
#include "transport/frame_buffer.h"
#include "transport/frame_stream.h"
#include "transport/peer_candidates.h"
#include "transport/side_log.h"
#include "transport/socket.h"
#include "transport/transport_manager.h"

namespace lumoraAiModule {

// The transport that a receiver belongs to. All but OnListenFailed is called on the receive thread.
class ReceiveHandler {
public:
    virtual ~ReceiveHandler() = default;
    // The port cannot be listened at.
    virtual void OnListenFailed() = 0;
    // The body of the receive thread.
    virtual void ReceiveThread() = 0;
    // New data came. False ends the receive loop.
    virtual bool OnReceived(char* data, unsigned int length) = 0;
    // The budget for reads that would block is spent. True if that counts as a lost connection, false if it
    // just ends the receive loop.
    virtual bool OnReceiveTimeout() = 0;
    // The peer closed the connection (error is 0), or it broke.
    virtual void OnConnectionLost(int error) = 0;
    // A wait for data has ended, with data or without.
    virtual void OnWaitEnded() = 0;
    // Called again and again while the peer of a private channel is waited for. Goes on with the handshake of
    // the sending direction. False if there is none, or if it is over; otherwise watched receives what to
    // wait for.
    virtual bool GoOnWithSending(pollfd& watched) = 0;
};

class TcpReceiver {
public:
    // Keeps references to all three.
    TcpReceiver(Side side, ReceiveHandler& handler, FrameStream& stream, ChannelState& state)
        : mSide(side), mHandler(handler), mStream(stream), mState(state) {}
    ~TcpReceiver();
    TcpReceiver(const TcpReceiver&) = delete;
    TcpReceiver& operator=(const TcpReceiver&) = delete;

    // Listens on port. The peer is expected to connect from addr, or from anywhere if that is no IPv4
    // address. 0 or -1; error receives the errno of the step that failed, 0 if it has none.
    int Listen(const std::string& addr, int port, int& error);
    // Starts the receive thread, which holds owner until it has ended: the handler may drop every other
    // reference to itself. 0 or -1.
    int StartThread(std::shared_ptr<void> owner);

    // Ends the receive thread and wakes it. A transport that only breaks calls ChannelState::EndReceiving
    // instead: its thread then looks for the peer's close for a second before it ends.
    void Stop();
    // What the next Stop hands over before the receive thread ends, and for how long at most.
    void HandOverOnStop(Rest rest, std::chrono::milliseconds limit);
    void DropRest();
    // Waits for the receive thread's end, unless this is the receive thread itself, and closes what it used.
    void Join();

    // Whether the peer is there at the latest after limit. False at once if the receive thread has ended.
    bool WaitForPeer(std::chrono::milliseconds limit);

    // Waits while the receive thread has bytes to read, or the peer's end: until it has ended, nothing has
    // come for a moment, or limit. DropRest ends it.
    void WaitUntilRead(std::chrono::milliseconds limit);

    // The rest is for the receive thread.
    bool AllocateReadBuffer(FrameBuffer& readBuffer);
    // Waits for the peer, then receives until the transport is stopped or the connection ends. False if the
    // peer could not be waited for.
    bool AcceptAndReceive(FrameBuffer& readBuffer);
    // Whether the time for handing over the rest has passed. Asked between two frames.
    bool IsRestOver();
    // Gives reads that would block their full budget again.
    void RenewReadBudget() { mWouldBlockReads = 0; }

private:
    int SetupReceiverSocket(int port, Descriptor& listenSocket, int& error);
    int BindAndListen(const Descriptor& socket, const sockaddr_in& address, int& error);
    // Each returns 0 with a connection, or without one if the transport is being stopped.
    int WaitForConnect();
    int WaitForAnyPeer(PeerCandidates& candidates);
    int WaitForProvenPeer(PeerCandidates& candidates);
    void TakePeer(Connection connection);
    bool UseIfExpected(Descriptor accepted, in_addr from);
    void ReceiveLoop(char* readBuffer);
    bool ReceiveOnce(char* readBuffer, bool& dataCame);
    ReceiveWait::Result WaitForData();
    enum class Waits { YES, NO };
    ssize_t ReadSome(char* readBuffer, char*& data, Waits waits = Waits::YES);
    bool HasBeenStopped();
    bool MayWaitInRead();
    bool IsDiscarding();
    bool IsHandingOver();
    bool MayWaitForPeer() { return mState.running || IsHandingOver(); }
    bool IsRestComplete(unsigned int count, std::chrono::steady_clock::time_point lastCame);
    bool OnNothingRead(int error);
    void LookForLostPeer(char* readBuffer);
    void HandOverRest(char* readBuffer);
    void CloseSocket();

    const Side mSide;
    ReceiveHandler& mHandler;
    FrameStream& mStream;
    ChannelState& mState;

    ExpectedPeer mExpectedPeer;  // set before the receive thread starts, then used by it alone
    unsigned int mWouldBlockReads = 0;
    std::atomic<bool> mWaitsInRead{false};

    // Written before the receive thread starts, by it, and after it has been joined.
    Descriptor mListenSocket;
    Connection mReceiveSocket;  // written under mReceiveSocketMutex, besides

    // A leaf lock: it keeps mReceiveSocket open while Stop shuts it down.
    lumora::Mutex mReceiveSocketMutex;
    bool mStopped GUARDED_BY(mReceiveSocketMutex) = false;
    bool mPeerHadLeft GUARDED_BY(mReceiveSocketMutex) = false;  // when Stop shut the socket down
    Rest mRest GUARDED_BY(mReceiveSocketMutex) = Rest::DROPPED;
    std::chrono::milliseconds mRestLimit GUARDED_BY(mReceiveSocketMutex){0};
    std::chrono::steady_clock::time_point mHandOverEnd GUARDED_BY(mReceiveSocketMutex);
    unsigned int mArrivedAtStop GUARDED_BY(mReceiveSocketMutex) = 0;
    bool mDropsRest GUARDED_BY(mReceiveSocketMutex) = false;
    enum class Peer { AWAITED, CAME, NONE };
    Peer mPeer GUARDED_BY(mReceiveSocketMutex) = Peer::AWAITED;
    lumora::Condition mPeerChanged;

    lumora::Mutex mThreadMutex;  // held while the receive thread is joined; that thread never takes it
    std::thread mReceiveThread GUARDED_BY(mThreadMutex);
    std::atomic<std::thread::id> mReceiveThreadId{std::thread::id()};
};

}  // namespace lumoraAiModule
