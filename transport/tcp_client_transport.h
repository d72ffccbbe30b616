// The client's half of a data channel: server frames come in, client frames go out.
#pragma once

#include "transport/tcp_transport.h"

namespace lumoraAiModule {

class LumoraTCPTransClient : public TcpTransport {
public:
    // callback must outlive the receive thread; handle is passed back in OnDisconnect.
    LumoraTCPTransClient(LumoraTransCallback& callback, unsigned int handle);

    // CLIENT_RECEIVE listens on port for the device at addr, CLIENT_SEND connects to addr and port. The
    // observer is not used.
    int CreateTransports(TransType type, const std::string& addr, int port,
                         LUM_OBSERVER_S& observer) override;
    int StopTransports() override;
    int SendFrame(const FrameParts& frame, unsigned int* written, unsigned int timeout) override;

    // Public for unit tests and fuzzers.
    int ClientParseAndSendData(char* data, unsigned int length, unsigned int& consumed);
    static void ParseDataHead(const char* data, unsigned int& headLen, unsigned int& frameLength);

protected:
    void ReceiveThread() override { ClientReceiveThread(); }
    void ClientReceiveThread();
    bool OnReceived(char* data, unsigned int length) override;
    bool OnReceiveTimeout() override;
    void OnConnectionLost(int error) override;

    void CutFrames(char* data, unsigned int length, unsigned int& consumed) override;
    unsigned int WholeFrameLength(const char* data) override;
    unsigned int PendingFrameLength(const char* data, unsigned int length) override;
    unsigned int MinimumHeadLength() const override;

    static std::atomic<bool> mLeftOverPending;

private:
    int CreateReceiveDirection(const std::string& addr, int port);

    LumoraTransCallback& mCallback;
    const unsigned int mHandle;
};

}  // namespace lumoraAiModule
