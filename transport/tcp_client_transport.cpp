#include "transport/tcp_client_transport.h"

#include "library/log.h"
#include "protocol/data_frame.h"
#include "transport/operation_names.h"

namespace lumoraAiModule {

namespace {

// One maximal frame and one maximal read.
constexpr unsigned int CLIENT_REASSEMBLY_SIZE =
    MAX_SERVER_FRAME_HEAD_LENGTH + MAX_SERVER_FRAME_PAYLOAD + READ_SIZE;

// The kernel sends SYNs after 0, 1, 3 and 7 s: a connect survives that three are lost.
constexpr int CONNECT_LIMIT_SECONDS = 8;

}  // namespace

std::atomic<bool> LumoraTCPTransClient::mLeftOverPending{false};

LumoraTCPTransClient::LumoraTCPTransClient(LumoraTransCallback& callback, unsigned int handle)
    : TcpTransport(Side::CLIENT, CLIENT_REASSEMBLY_SIZE, mLeftOverPending),
      mCallback(callback),
      mHandle(handle) {}

int LumoraTCPTransClient::CreateTransports(TransType type, const std::string& addr, int port,
                                           LUM_OBSERVER_S&) {
    switch (type) {
        case TransType::CLIENT_RECEIVE:
            return CreateReceiveDirection(addr, port);
        case TransType::CLIENT_SEND:
            return BeginSending(addr, port, CONNECT_LIMIT_SECONDS);
        default:
            return 0;
    }
}

int LumoraTCPTransClient::CreateReceiveDirection(const std::string& addr, int port) {
    if (BeginReceiving(addr, port) != 0) {
        return -1;
    }
    if (!mStream.Held().Allocate()) {
        LUMORA_LOG_AS(lumora::LOG_ERROR, CREATE_TRANSPORTS, "new memory failed, low memory!\n");
        return -1;
    }
    if (StartReceiveThread() != 0) {
        return -1;
    }
    LUMORA_LOG_AS(lumora::LOG_DETAIL, CREATE_TRANSPORTS, "===ClientReceiveThread create succ=========\n");
    return 0;
}

// Without memory for the buffer the thread ends before it accepts. The device connects nevertheless, because
// the kernel answers for the listening socket. No data arrives then.
void LumoraTCPTransClient::ClientReceiveThread() {
    FrameBuffer readBuffer;
    if (mReceiver.AllocateReadBuffer(readBuffer) && mReceiver.AcceptAndReceive(readBuffer)) {
        LUMORA_STATE("The client reveived thread exit.\n");
    }
}

// A stream that cannot be cut ends the thread without OnDisconnect, which is for connections that ended: the
// module keeps the device, and the application can still send to it.
bool LumoraTCPTransClient::OnReceived(char* data, unsigned int length) {
    if (ParseAndSendData(data, length) != 0) {
        LUMORA_LOG_AS(lumora::LOG_ERROR, ReceiveThreadName(Side::CLIENT), "ParseAndSendData failed!\n");
        return false;
    }
    return true;
}

bool LumoraTCPTransClient::OnReceiveTimeout() {
    LUMORA_LOG_AS(lumora::LOG_ERROR, ReceiveThreadName(Side::CLIENT), "Recv Data timeout error.\n");
    return true;
}

// The flags come first: a send that another thread starts while OnDisconnect runs must fail at once.
// OnDisconnect may drop the module's last reference to this transport; the reference of the receive thread
// keeps it alive until that thread has closed its sockets.
void LumoraTCPTransClient::OnConnectionLost(int) {
    mState.running = false;
    mState.broken = true;
    mCallback.OnDisconnect(mHandle);
}

void LumoraTCPTransClient::CutFrames(char* data, unsigned int length, unsigned int& consumed) {
    ClientParseAndSendData(data, length, consumed);
}

int LumoraTCPTransClient::ClientParseAndSendData(char* data, unsigned int length, unsigned int& consumed) {
    consumed = 0;
    unsigned int headLen = HeadLengthOf(data);
    if (headLen == 0 || headLen > MAX_SERVER_FRAME_HEAD_LENGTH) {
        LUMORA_DETAIL("headLen:%d, illegal.\n", static_cast<int>(headLen));
        return 0;
    }
    unsigned int frameLength = 0;
    // < and not <=: a frame without payload at the end of the data is handed up with the bytes that follow
    // it. headLen is that of the frame before, so the bytes of the common head are checked for as well.
    while (consumed + headLen < length && length - consumed >= COMMON_HEAD_LENGTH) {
        ParseDataHead(data + consumed, headLen, frameLength);
        // A frame of length 0 would be cut off without end.
        if (frameLength == 0 || frameLength > length - consumed) {
            break;
        }
        mCallback.OnRecvData(data + consumed, frameLength);
        consumed += frameLength;
    }
    return 0;
}

// For a head that is too long frameLength stays as the caller had it. In the loop above that is the length of
// the frame before; reading goes on by it, and OnRecvData checks the fields again.
void LumoraTCPTransClient::ParseDataHead(const char* data, unsigned int& headLen, unsigned int& frameLength) {
    headLen = HeadLengthOf(data);
    if (headLen > MAX_SERVER_FRAME_HEAD_LENGTH) {
        LUMORA_DETAIL("headLen = %d, illegal.\n", static_cast<int>(headLen));
        return;
    }
    const unsigned int payloadLen = PayloadLengthOf(data);
    if (payloadLen > MAX_SERVER_FRAME_PAYLOAD) {
        LUMORA_ERROR("payloadLen = %d, illegal.\n", static_cast<int>(payloadLen));
        headLen = 0;
        frameLength = 0;
        return;
    }
    frameLength = headLen + payloadLen;
}

unsigned int LumoraTCPTransClient::WholeFrameLength(const char* data) {
    const bool isLegal = HeadLengthOf(data) <= MAX_SERVER_FRAME_HEAD_LENGTH &&
                         PayloadLengthOf(data) <= MAX_SERVER_FRAME_PAYLOAD;
    return isLegal ? HeadLengthOf(data) + PayloadLengthOf(data) : 0;
}

unsigned int LumoraTCPTransClient::PendingFrameLength(const char* data, unsigned int) {
    unsigned int headLen = 0;
    unsigned int frameLength = 0;
    ParseDataHead(data, headLen, frameLength);
    return frameLength;
}

unsigned int LumoraTCPTransClient::MinimumHeadLength() const { return COMMON_HEAD_LENGTH; }

// The timeout is not used: the number of attempts without progress bounds a send. A spent budget returns 0
// with a short *written; the next call fails.
int LumoraTCPTransClient::SendFrame(const FrameParts& frame, unsigned int* written, unsigned int) {
    const lumora::MutexLock lock(mSender.mMutex);
    const std::shared_ptr<Connection> socket = mSender.Socket();
    if (socket == nullptr || mState.broken) {
        LUMORA_LOG_AS(lumora::LOG_ERROR, SEND_DATA, "No transport channel created, please connect first.\n");
        *written = 0;
        return -1;
    }
    if (mSender.WriteAll(socket, frame, written) != 0) {
        return -1;
    }
    LUMORA_LOG_AS(lumora::LOG_DETAIL, SEND_DATA, "write length = %d.\n", static_cast<int>(*written));
    return 0;
}

// A send holds the mutex for as long as the peer takes bytes, so it is told to end before the mutex is taken.
// Resume stands inside the mutex: by then no send runs, and the next one finds no socket. Two threads that
// stop at once are harmless, because the second finds everything closed.
int LumoraTCPTransClient::StopTransports() {
    mSender.Interrupt();  // before the mutex, which a send in progress holds
    {
        const lumora::MutexLock lock(mSender.mMutex);
        mSender.Resume();
        LUMORA_STATE("The transport will be stopped.\n");
        mReceiver.Stop();
        mSender.Close();
        mState.broken = false;
    }
    // Outside of the mutex: a callback on the receive thread may be about to send.
    mReceiver.Join();
    mState.protection.EraseKeys();
    LUMORA_STATE("The transport has been stopped.\n");
    return 0;
}

}  // namespace lumoraAiModule
