// The server's half of a data channel: client frames come in, server frames go out.
#pragma once

#include "transport/tcp_transport.h"

namespace lumoraAiModule {

class LumoraTCPTransServer : public TcpTransport {
public:
    LumoraTCPTransServer();

    // SERVER_RECEIVE listens on port for the client at addr and hands payloads to the observer's OnData, of
    // which it keeps a copy; SERVER_SEND connects to addr and port.
    int CreateTransports(TransType type, const std::string& addr, int port,
                         LUM_OBSERVER_S& observer) override;
    int StopTransports() override;
    int SendFrame(const FrameParts& frame, unsigned int* written, unsigned int timeout) override;

    // Public for unit tests and fuzzers.
    int ServerParseAndSendData(char* data, unsigned int length, unsigned int& consumed);
    static void ParseDataHead(const char* data, unsigned int length, int* clientID,
                              unsigned int* payloadLength);
    void SetObserver(const LUM_OBSERVER_S& observer) { mObserver = observer; }

protected:
    void ReceiveThread() override { ServerReceiveThread(); }
    void ServerReceiveThread();
    bool OnReceived(char* data, unsigned int length) override;
    bool OnReceiveTimeout() override;
    void OnConnectionLost(int error) override;

    void CutFrames(char* data, unsigned int length, unsigned int& consumed) override;
    unsigned int WholeFrameLength(const char* data) override;
    unsigned int PendingFrameLength(const char* data, unsigned int length) override;
    unsigned int MinimumHeadLength() const override;

    static std::atomic<bool> mLeftOverPending;

private:
    int CreateReceiveDirection(const std::string& addr, int port, const LUM_OBSERVER_S& observer);
    int CreateSendDirection(const std::string& addr, int port);

    LUM_OBSERVER_S mObserver;
    std::atomic<bool> mConnected{false};  // set once the sending direction has been created
};

}  // namespace lumoraAiModule
