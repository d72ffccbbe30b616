// A data channel over TCP: two connections, one per direction. Frames are received on the one that this side
// listened for and sent on the one that this side made.
#pragma once

#include <chrono>
#include <memory>
#include <string>
#include <utility>

#include "transport/channel_state.h"
#include "transport/frame_stream.h"
#include "transport/tcp_receiver.h"
#include "transport/tcp_sender.h"
#include "transport/transport_manager.h"

namespace lumoraAiModule {

// What the transports of both sides share. Created by make_shared only, because the receive thread keeps its
// transport alive.
class TcpTransport : public LumoraTransManager,
                     public std::enable_shared_from_this<TcpTransport>,
                     protected ReceiveHandler,
                     protected FrameCutter {
public:
    TcpTransport(const TcpTransport&) = delete;
    TcpTransport& operator=(const TcpTransport&) = delete;

    int DestoryTransports() override;
    int StartTransports(TransType) override { return 0; }
    int GetTransStatus(LUM_TRANSPORT_STATUS_E& status) override;
    bool IsRunning() const override { return mState.running; }
    void AwaitKeys() override { mState.protection.Await(); }
    void UseKeys(std::shared_ptr<lumora::ChannelKeys> keys) override {
        mState.protection.Decide(std::move(keys));
    }
    int WaitForPeer() override;
    int StopAfterReceiving(Rest rest, std::chrono::milliseconds limit) override;
    void WaitUntilRead(std::chrono::milliseconds limit) override { mReceiver.WaitUntilRead(limit); }
    void DropRest() override { mReceiver.DropRest(); }
    void WaitUntilTaken(std::chrono::milliseconds limit) override { mSender.WaitUntilTaken(limit); }
    int SendData(const void* data, unsigned int length, unsigned int* written, unsigned int timeout) override;

protected:
    TcpTransport(Side side, unsigned int reassemblyCapacity, std::atomic<bool>& leftOverPending)
        : mStream(reassemblyCapacity, *this, leftOverPending),
          mReceiver(side, *this, mStream, mState),
          mSender(side, mState) {}

    // 0 or -1.
    int BeginReceiving(const std::string& addr, int port);
    int StartReceiveThread() { return mReceiver.StartThread(shared_from_this()); }
    int BeginSending(const std::string& addr, int port, int limitSeconds);
    int ParseAndSendData(char* data, unsigned int length) { return mStream.ParseAndSendData(data, length); }

    void OnListenFailed() override { StopTransports(); }
    void OnWaitEnded() override { mSender.PushHeldBack(); }
    bool GoOnWithSending(pollfd& watched) override { return mSender.GoOnWithHandshake(watched); }

    ChannelState mState;
    FrameStream mStream;
    TcpReceiver mReceiver;
    TcpSender mSender;

private:
    std::atomic<LUM_TRANSPORT_STATUS_E> mTransStatus{LUM_TRANSPORT_STATUS_UNKNOWN};
};

}  // namespace lumoraAiModule
