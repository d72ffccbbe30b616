#include "transport/tcp_transport.h"

#include "library/log.h"
#include "transport/operation_names.h"
#include "transport/peer_candidates.h"

namespace lumoraAiModule {

// Neither the mutex nor a join: callers hold the module's lock, which the receive thread may be waiting for.
// The receive thread ends by itself, and its reference keeps this transport alive until then.
int TcpTransport::DestoryTransports() {
    mState.isDropped = true;
    mSender.Close();
    mState.EndReceiving();
    mState.broken = false;
    return 0;
}

int TcpTransport::StopAfterReceiving(Rest rest, std::chrono::milliseconds limit) {
    mReceiver.HandOverOnStop(rest, limit);
    return StopTransports();
}

int TcpTransport::GetTransStatus(LUM_TRANSPORT_STATUS_E& status) {
    status = mTransStatus;
    LUMORA_DETAIL("mTransStatus :%d \n", static_cast<int>(status));
    return 0;
}

int TcpTransport::WaitForPeer() {
    if (mReceiver.WaitForPeer(PeerCandidates::LIMIT)) {
        return 0;
    }
    LUMORA_LOG_AS(lumora::LOG_ERROR, CREATE_TRANSPORTS,
                  "The peer has not connected by a private connection in time.\n");
    return -1;
}

int TcpTransport::SendData(const void* data, unsigned int length, unsigned int* written,
                           unsigned int timeout) {
    FrameParts frame;
    frame.head = static_cast<const char*>(data);
    frame.headLength = length;
    return SendFrame(frame, written, timeout);
}

int TcpTransport::BeginReceiving(const std::string& addr, int port) {
    int error = 0;
    if (mReceiver.Listen(addr, port, error) != 0) {
        LUMORA_LOG_AS(lumora::LOG_ERROR, CREATE_TRANSPORTS, "SetupSocket error: %d\n", error);
        return -1;
    }
    return 0;
}

int TcpTransport::BeginSending(const std::string& addr, int port, int limitSeconds) {
    int error = 0;
    if (mSender.SetupSenderSocket(port, addr, limitSeconds, error) != 0) {
        LUMORA_LOG_AS(lumora::LOG_ERROR, CREATE_TRANSPORTS, "SetupSocket error: %d\n", error);
        return -1;
    }
    return 0;
}

}  // namespace lumoraAiModule
