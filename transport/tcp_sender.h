// The sending direction of a data channel: connects, and writes frames.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <string>

#include "base/mutex.h"
#include "transport/channel_state.h"
#include "transport/connection.h"
#include "transport/send_burst.h"
#include "transport/side_log.h"
#include "transport/socket.h"
#include "transport/transport_manager.h"

namespace lumoraAiModule {

class TcpSender {
public:
    TcpSender(Side side, ChannelState& state) : mSide(side), mState(state) {}

    // 0 or -1; error receives the errno of the step that failed, 0 if it has none.
    int SetupSenderSocket(int port, const std::string& addr, int limitSeconds, int& error);

    // Goes on with the handshake of a private connection that the peer has not completed yet. False if there
    // is none; otherwise watched receives what to wait for. A failed handshake ends both directions. For the
    // receive thread.
    bool GoOnWithHandshake(pollfd& watched);

    // Null if there is no connection.
    std::shared_ptr<Connection> Socket();
    // Closes the connection. A writer that is in the middle of a send keeps the descriptor until it has
    // noticed.
    void Close() { SetSocket(nullptr); }

    // Ends a send that another thread is in the middle of; the next WriteAll returns at once, until Resume.
    void Interrupt() { mInterrupted = true; }
    void Resume() { mInterrupted = false; }

    // Waits until the peer's host has acknowledged what was written, or seems gone, or until limit.
    void WaitUntilTaken(std::chrono::milliseconds limit);

    // Serialises writes, and writes with the stop.
    lumora::Mutex mMutex;

    // Writes until all is written or the channel breaks: a retry budget bounds it, not a time-out. -1 only
    // for a broken connection; a spent budget shows in *written.
    int WriteAll(const std::shared_ptr<Connection>& socket, const FrameParts& frame, unsigned int* written)
        REQUIRES(mMutex);

    // Sends the small frames that wait in the kernel for others. Any thread may call it.
    void PushHeldBack();

private:
    bool MayWrite() const;
    int Write(const std::shared_ptr<Connection>& socket, const FrameParts& frame, int flags,
              unsigned int* written);
    int BeginHandshake(Connection& connection, const lumora::ChannelKeys& keys);
    void OnHeldBack();
    bool PauseBeforeNextWrite(const Connection& socket, int error, unsigned int& wouldBlockWrites);
    void SetSocket(std::shared_ptr<Connection> socket);

    const Side mSide;
    ChannelState& mState;
    std::atomic<bool> mInterrupted{false};

    SendBurst mBurst GUARDED_BY(mMutex);
    std::atomic<bool> mHoldsBack{false};

    lumora::Mutex mSocketMutex;  // a leaf lock
    std::shared_ptr<Connection> mSocket GUARDED_BY(mSocketMutex);
};

}  // namespace lumoraAiModule
