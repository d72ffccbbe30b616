// What the TCP transports of both sides share: sockets, accept loop, receive loop, left-over bytes, write
// loop and stop. Where the sides differ, a virtual operation stands for the difference.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>

#include "base/mutex.h"
#include "transport/expected_peer.h"
#include "transport/frame_buffer.h"
#include "transport/reassembly.h"
#include "transport/socket.h"
#include "transport/transport_manager.h"

namespace lumoraAiModule {

constexpr unsigned int READ_SIZE = 1048576;  // bytes of one read

// Two connections, one per direction: frames are received on the one that this side listened for, by a
// thread of their own, and sent on the one that this side made. Created by make_shared only: the receive
// thread keeps its transport alive until it has ended, because OnDisconnect may drop all other references.
class TcpTransport : public LumoraTransManager, public std::enable_shared_from_this<TcpTransport> {
public:
    ~TcpTransport() override;
    TcpTransport(const TcpTransport&) = delete;
    TcpTransport& operator=(const TcpTransport&) = delete;

    int DestoryTransports() override;
    int StartTransports(TransType) override { return 0; }
    int GetTransStatus(LUM_TRANSPORT_STATUS_E& status) override;

protected:
    explicit TcpTransport(unsigned int reassemblyCapacity) : mReassembly(reassemblyCapacity) {}

    // Setting up. 0 or -1; error receives the errno of the step that failed, 0 if it has none. The peer is
    // expected to connect from addr, or from anywhere if that is not an address.
    int BeginReceiving(const std::string& addr, int port);
    int BeginSending(const std::string& addr, int port, int limitSeconds);
    int SetupReceiverSocket(int port, Descriptor& listenSocket, int& error);
    int SetupSenderSocket(int port, const std::string& addr, int limitSeconds, int& error);
    int StartReceiveThread();
    virtual void LogBindError(int error) = 0;
    virtual void LogBound(in_port_t networkPort) = 0;
    virtual void LogListenError(int error) = 0;

    // Receiving, all of it on the receive thread.
    virtual void ReceiveThread() = 0;
    // The log names the thread's operation by it.
    virtual const char* ReceiveThreadName() const = 0;
    bool AllocateReadBuffer(FrameBuffer& readBuffer);
    // Waits for the peer, then receives until the transport is stopped or the connection ends. False when
    // no peer could be waited for.
    bool AcceptAndReceive(FrameBuffer& readBuffer);
    // Returns 0 with a connection, or without one when the transport is being stopped.
    int WaitForConnect(Descriptor& receiveSocket, const Descriptor& listenSocket);
    // New data came. False ends the receive loop.
    virtual bool OnReceived(char* data, unsigned int length) = 0;
    // The budget for reads that would block is spent. True when that counts as a lost connection, false
    // when it just ends the receive loop.
    virtual bool OnReceiveTimeout() = 0;
    // The peer closed the connection (error is 0), or it broke.
    virtual void OnConnectionLost(int error) = 0;
    void CloseSocket();

    // Reassembly, on the receive thread.
    int ParseAndSendData(char* data, unsigned int length);
    // Hands every whole frame in data upward and tells how many bytes they were.
    virtual void CutFrames(char* data, unsigned int length, unsigned int& consumed) = 0;
    // How many buffered bytes it takes before the pending frame is worth cutting.
    virtual unsigned int PendingFrameLength() = 0;
    // The shortest head that can be read at all.
    virtual unsigned int MinimumHeadLength() const = 0;
    // Whether the previous read ended in the middle of a frame. One flag for all transports of a side.
    virtual std::atomic<bool>& LeftOverPending() = 0;

    // Sending. Writes until all is written or the channel breaks: a retry budget bounds it, not a time-out.
    // -1 only for a broken connection; a spent budget shows in *written.
    int WriteAll(const std::shared_ptr<Descriptor>& socket, const char* data, unsigned int length,
                 unsigned int* written) REQUIRES(mMutex);
    virtual bool MayWrite() const = 0;
    virtual void LogWriteError(int error) = 0;
    std::shared_ptr<Descriptor> SendSocket();
    void SetSendSocket(std::shared_ptr<Descriptor> socket);

    // Stopping.
    // Ends the receive thread and wakes it. A transport that only breaks clears mRunning instead: its thread
    // then ends when its wait does, after it has seen whether the peer has closed the connection.
    void StopReceiving();
    // Waits for the receive thread's end, unless this is the receive thread itself, and closes what it used.
    void JoinReceiveThread();

    lumora::Mutex mMutex;  // serialises SendData and StopTransports
    std::atomic<bool> mRunning{false};
    std::atomic<bool> mBroken{false};
    Reassembly mReassembly;
    unsigned int mWouldBlockReads = 0;

    // Written before the receive thread starts, by it, and after it has been joined.
    Descriptor mListenSocket;
    Descriptor mReceiveSocket;  // written under mReceiveSocketMutex, besides

private:
    enum class Readiness { READABLE, NOT_YET, FAILED };

    static int FillAddress(const char* operation, int port, sockaddr_in& address);
    int BindAndListen(const Descriptor& socket, const sockaddr_in& address, int& error);
    void ReceiveLoop(char* readBuffer);
    bool ReceiveOnce(char* readBuffer, bool& dataCame);
    Readiness WaitUntilReadable();
    ssize_t ReadSome(char* readBuffer, char*& data);
    bool HasBeenStopped();
    bool OnNothingRead(int error);
    void LookForLostPeer(char* readBuffer);
    bool PauseBeforeNextWrite(const Descriptor& socket, int error, unsigned int& wouldBlockWrites);

    std::atomic<LUM_TRANSPORT_STATUS_E> mTransStatus{LUM_TRANSPORT_STATUS_UNKNOWN};

    lumora::Mutex mSendSocketMutex;  // a leaf lock
    std::shared_ptr<Descriptor> mSendSocket GUARDED_BY(mSendSocketMutex);

    lumora::Mutex mThreadMutex;  // held while the receive thread is joined; that thread never takes it
    std::thread mReceiveThread GUARDED_BY(mThreadMutex);
    std::atomic<std::thread::id> mReceiveThreadId{std::thread::id()};

    ExpectedPeer mExpectedPeer;  // set before the receive thread starts, then used by it alone

    // A leaf lock: it keeps mReceiveSocket open while StopReceiving shuts it down.
    lumora::Mutex mReceiveSocketMutex;
    bool mStopped GUARDED_BY(mReceiveSocketMutex) = false;
    bool mPeerHadLeft GUARDED_BY(mReceiveSocketMutex) = false;  // when StopReceiving shut the socket down
};

}  // namespace lumoraAiModule
