// The server module's way of sending data to the subscribers of a service.
#include "library/log.h"
#include "protocol/data_frame.h"
#include "securec.h"
#include "server/server_module.h"

namespace lumoraAiModule {

using lumora::MutexLock;

namespace {

constexpr char PACKET_AND_SEND[] = "PacketAndSendData";

}  // namespace

// mSendMutex, not mMutex: a request that waits for its callback must not hold up the data of a running
// service. Sends wait for each other, because blocks must not be mixed in the stream.
int LumoraServerModule::SendDataToClient(const std::string& serviceName, const char* data,
                                         unsigned int dataLen, unsigned int* sendLength,
                                         unsigned int timeoutMs) {
    if (data == nullptr) {
        LUMORA_ERROR("input buffer is nullptr!\n");
        return -1;
    }
    if (sendLength == nullptr) {
        LUMORA_ERROR("sendLength is nullptr!\n");
        return -1;
    }
    if (dataLen == 0) {
        LUMORA_ERROR("payload dataLen is 0!\n");
        return -1;
    }
    const MutexLock lock(mSendMutex);
    LUMORA_TRACE("Enter\n");
    const Published published = mPublication.Current();
    if (published.mTransManager == nullptr) {
        LUMORA_ERROR("no transport created , please connect first!\n");
        return -1;
    }
    if (PacketAndSendData(published, serviceName, data, dataLen, sendLength, timeoutMs) != 0) {
        LUMORA_ERROR("PacketAndSendData failed!\n");
        return -1;
    }
    LUMORA_TRACE("Out\n");
    return 0;
}

// A service without subscribers is sent as well: the client's side takes a frame for no client. Each frame is
// built for the subscribers of this moment; a client that subscribes meanwhile gets the next one.
int LumoraServerModule::PacketAndSendData(const Published& published, const std::string& serviceName,
                                          const char* data, unsigned int dataLen, unsigned int* sendLength,
                                          unsigned int timeoutMs) {
    const auto service = published.FindService(serviceName);
    if (service == nullptr) {
        LUMORA_ERROR("serviceName is illegal\n");
        return -1;
    }
    const auto headLen = static_cast<unsigned int>(service->mClientIds.size() + serviceName.length() +
                                                   SERVER_FRAME_FIXED_HEAD_LENGTH);
    if (headLen > MAX_SERVER_FRAME_HEAD_LENGTH) {
        LUMORA_ERROR("headLen %d illegal\n", static_cast<int>(headLen));
        return -1;
    }
    FrameBuffer frame;
    if (AllocateServerFrame(frame, headLen, dataLen) != 0) {
        return -1;
    }
    *sendLength = 0;  // a call that was refused before has left it alone
    if (FillServerFrame(frame, service->mClientIds, serviceName, headLen, data, dataLen) != 0) {
        return -1;
    }
    // Asked for again: a request may have stopped the transport while the frame was built.
    const std::shared_ptr<LumoraTransManager> transport = mPublication.Current().mTransManager;
    if (transport != nullptr &&
        transport->SendFrame(ServerFrameParts(frame, headLen, data, dataLen), sendLength, timeoutMs) != 0) {
        LUMORA_ERROR("SendDataToClient failed!\n");
        *sendLength = 0;
        return -1;
    }
    *sendLength = PayloadWritten(*sendLength, headLen);
    return 0;
}

int LumoraServerModule::AllocateServerFrame(FrameBuffer& frame, unsigned int headLen, unsigned int dataLen) {
    // A bounded copy may write to the whole of its destination: there is room for that behind the name,
    // however short the payload.
    if (!frame.Allocate(headLen + (IsSentApart(dataLen) ? 0 : dataLen) + LUM_NAME_SIZE)) {
        LUMORA_LOG_AS(lumora::LOG_ERROR, PACKET_AND_SEND, "memory malloc error\n");
        return -1;
    }
    // Only the head: the payload is about to be overwritten.
    if (memset_s(frame.Bytes(), headLen, 0, headLen) != 0) {
        LUMORA_LOG_AS(lumora::LOG_ERROR, PACKET_AND_SEND, "memset_s failed\n");
        return -1;
    }
    return 0;
}

// A name of 40 characters fails here: the bounded copy needs room for a terminator. The terminator falls on
// the first byte of the payload, which is written after it.
int LumoraServerModule::FillServerFrame(FrameBuffer& frame, const std::vector<unsigned int>& clientIds,
                                        const std::string& serviceName, unsigned int headLen,
                                        const char* data, unsigned int dataLen) {
    char* name = WriteServerFrameHead(frame.Bytes(), dataLen, clientIds, serviceName);
    if (strncpy_s(name, LUM_NAME_SIZE, serviceName.c_str(), serviceName.length()) != 0) {
        LUMORA_LOG_AS(lumora::LOG_ERROR, PACKET_AND_SEND, "strncpy_s failed!\n");
        return -1;
    }
    if (!IsSentApart(dataLen) && memcpy_s(frame.Bytes() + headLen, dataLen, data, dataLen) != 0) {
        LUMORA_LOG_AS(lumora::LOG_ERROR, PACKET_AND_SEND, "memcpy_s failed!\n");
        return -1;
    }
    return 0;
}

FrameParts LumoraServerModule::ServerFrameParts(const FrameBuffer& frame, unsigned int headLen,
                                                const char* data, unsigned int dataLen) {
    FrameParts parts;
    parts.head = frame.Bytes();
    parts.headLength = headLen;
    if (IsSentApart(dataLen)) {
        parts.payload = data;
        parts.payloadLength = dataLen;
    } else {
        parts.headLength += dataLen;
    }
    return parts;
}

}  // namespace lumoraAiModule
