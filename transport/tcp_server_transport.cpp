#include "transport/tcp_server_transport.h"

#include "library/callback_scope.h"
#include "library/log.h"
#include "protocol/data_frame.h"
#include "securec.h"
#include "transport/operation_names.h"

namespace lumoraAiModule {

namespace {

// One maximal frame and one maximal read.
constexpr unsigned int SERVER_REASSEMBLY_SIZE = MAX_CLIENT_FRAME_PAYLOAD + READ_SIZE;

// Connecting back is a piece of a request: the client waits for its answer, and so do all other requests if
// the platform has one thread for them. Two lost SYNs are survived.
constexpr int CONNECT_BACK_LIMIT_SECONDS = 5;

}  // namespace

std::atomic<bool> LumoraTCPTransServer::mLeftOverPending{false};

LumoraTCPTransServer::LumoraTCPTransServer()
    : TcpTransport(Side::SERVER, SERVER_REASSEMBLY_SIZE, mLeftOverPending) {}

int LumoraTCPTransServer::CreateTransports(TransType type, const std::string& addr, int port,
                                           LUM_OBSERVER_S& observer) {
    switch (type) {
        case TransType::SERVER_RECEIVE:
            return CreateReceiveDirection(addr, port, observer);
        case TransType::SERVER_SEND:
            return CreateSendDirection(addr, port);
        default:
            return 0;
    }
}

int LumoraTCPTransServer::CreateReceiveDirection(const std::string& addr, int port,
                                                 const LUM_OBSERVER_S& observer) {
    if (BeginReceiving(addr, port) != 0) {
        return -1;
    }
    SetObserver(observer);
    if (!mStream.Held().Allocate()) {
        LUMORA_LOG_AS(lumora::LOG_ERROR, CREATE_TRANSPORTS, "new memory failed, low memory!\n");
        return -1;
    }
    // Everything before the spare bytes is written before it is read: zeroing it would only cost memory.
    if (memset_s(mStream.Held().Spare(), FRAME_SPARE_LENGTH, 0, FRAME_SPARE_LENGTH) != 0) {
        LUMORA_LOG_AS(lumora::LOG_ERROR, CREATE_TRANSPORTS, "memset_s failed\n");
        mStream.Held().Release();
        return -1;
    }
    if (StartReceiveThread() != 0) {
        return -1;
    }
    LUMORA_LOG_AS(lumora::LOG_STATE, CREATE_TRANSPORTS, "Start reveived thread success in server.\n");
    return 0;
}

int LumoraTCPTransServer::CreateSendDirection(const std::string& addr, int port) {
    if (BeginSending(addr, port, CONNECT_BACK_LIMIT_SECONDS) != 0) {
        return -1;
    }
    mConnected = true;
    return 0;
}

// Without memory for the buffer the thread ends and the running flag stays set: the device can still send to
// the client.
void LumoraTCPTransServer::ServerReceiveThread() {
    FrameBuffer readBuffer;
    if (!mReceiver.AllocateReadBuffer(readBuffer)) {
        return;
    }
    if (memset_s(readBuffer.Bytes() + READ_SIZE, FRAME_SPARE_LENGTH, 0, FRAME_SPARE_LENGTH) != 0) {
        LUMORA_ERROR("memset_s failed!\n");
        return;
    }
    if (mReceiver.AcceptAndReceive(readBuffer)) {
        LUMORA_STATE("The server reveived thread exit.\n");
    }
}

// The result is not used: what a client sends wrongly costs that client its data, and the others still get
// what the device sends.
bool LumoraTCPTransServer::OnReceived(char* data, unsigned int length) {
    ParseAndSendData(data, length);
    mReceiver.RenewReadBudget();
    return true;
}

bool LumoraTCPTransServer::OnReceiveTimeout() {
    LUMORA_LOG_AS(lumora::LOG_ERROR, ReceiveThreadName(Side::SERVER),
                  "Recv Data timeout error, will exit.\n");
    return false;
}

// The application is not told: its next SendData shows it. After an orderly close that writes nothing and
// reports 0 bytes, after an error it fails.
void LumoraTCPTransServer::OnConnectionLost(int error) {
    mState.running = false;
    mState.broken = mState.broken || error != 0;
    mReceiver.RenewReadBudget();
}

void LumoraTCPTransServer::CutFrames(char* data, unsigned int length, unsigned int& consumed) {
    ServerParseAndSendData(data, length, consumed);
}

// < and not <=: a frame without payload at the end of the data is handed up with the bytes that follow it. A
// frame whose head is illegal counts as empty and is skipped by six bytes, so the loop ends for any input.
// Payload lengths are at most MAX_CLIENT_FRAME_PAYLOAD, so the sum does not overflow.
int LumoraTCPTransServer::ServerParseAndSendData(char* data, unsigned int length, unsigned int& consumed) {
    const lumora::DataCallbackScope scope(mState.running);
    consumed = 0;
    while (consumed + CLIENT_FRAME_HEAD_LENGTH < length && (mState.running || !mReceiver.IsRestOver())) {
        int clientID = 0;
        unsigned int payloadLen = 0;
        ParseDataHead(data + consumed, length - consumed, &clientID, &payloadLen);
        const unsigned int frameLength = payloadLen + CLIENT_FRAME_HEAD_LENGTH;
        if (frameLength > length - consumed) {
            LUMORA_DETAIL("payloadLen  = %d, length = %d, we will not parse\n", static_cast<int>(payloadLen),
                          static_cast<int>(length));
            break;
        }
        if (mObserver.OnData != nullptr) {
            mObserver.OnData(clientID, data + consumed + CLIENT_FRAME_HEAD_LENGTH, payloadLen);
        }
        consumed += frameLength;
    }
    return 0;
}

// The head has a fixed length here: what a client says of it is only checked.
void LumoraTCPTransServer::ParseDataHead(const char* data, unsigned int length, int* clientID,
                                         unsigned int* payloadLength) {
    *clientID = 0;
    *payloadLength = 0;
    if (length < CLIENT_FRAME_HEAD_LENGTH) {
        return;
    }
    const unsigned int headLen = HeadLengthOf(data);
    if (headLen > CLIENT_FRAME_HEAD_LENGTH) {
        LUMORA_ERROR("headLen error: %d\n", static_cast<int>(headLen));
        return;
    }
    const unsigned int payloadLen = PayloadLengthOf(data);
    if (payloadLen > MAX_CLIENT_FRAME_PAYLOAD) {
        LUMORA_ERROR("payloadLen error: %d\n", static_cast<int>(payloadLen));
        return;
    }
    *payloadLength = payloadLen;
    *clientID = static_cast<unsigned char>(data[COMMON_HEAD_LENGTH]);
}

unsigned int LumoraTCPTransServer::WholeFrameLength(const char* data) {
    const bool isLegal =
        HeadLengthOf(data) <= CLIENT_FRAME_HEAD_LENGTH && PayloadLengthOf(data) <= MAX_CLIENT_FRAME_PAYLOAD;
    return isLegal ? CLIENT_FRAME_HEAD_LENGTH + PayloadLengthOf(data) : 0;
}

// Without the head's six bytes. A try that comes too early only fails to find a whole frame.
unsigned int LumoraTCPTransServer::PendingFrameLength(const char* data, unsigned int length) {
    int clientID = 0;
    unsigned int payloadLen = 0;
    ParseDataHead(data, length, &clientID, &payloadLen);
    return payloadLen;
}

unsigned int LumoraTCPTransServer::MinimumHeadLength() const { return CLIENT_FRAME_HEAD_LENGTH; }

// Before the channel has ever been connected, or while its handshake goes on, *written stays as it is, unlike
// after a break: the caller has set it to 0 already.
int LumoraTCPTransServer::SendFrame(const FrameParts& frame, unsigned int* written, unsigned int) {
    const lumora::MutexLock lock(mSender.mMutex);
    const std::shared_ptr<Connection> socket = mSender.Socket();
    if (!mConnected || (socket != nullptr && !socket->IsReady())) {
        LUMORA_LOG_AS(lumora::LOG_ERROR, SEND_DATA, "No transport channel created, please connect first.\n");
        return -1;
    }
    if (socket == nullptr || mState.broken) {
        LUMORA_LOG_AS(lumora::LOG_ERROR, SEND_DATA, "No transport channel created, please connect first.\n");
        *written = 0;
        return -1;
    }
    return mSender.WriteAll(socket, frame, written);
}

int LumoraTCPTransServer::StopTransports() {
    LUMORA_DETAIL("will stop transport\n");
    mReceiver.Stop();  // before the mutex: a send in progress stops at its next pass
    {
        const lumora::MutexLock lock(mSender.mMutex);
        if (mSender.Socket() != nullptr) {
            mSender.Close();
            mState.broken = false;
        }
    }
    // Outside of the mutex: OnData on the receive thread may be about to send.
    mReceiver.Join();
    mState.protection.EraseKeys();
    LUMORA_TRACE("stop transport out\n");
    return 0;
}

}  // namespace lumoraAiModule
