#include "protocol/data_frame.h"

namespace lumoraAiModule {

// Shifts, not a copy of the integer: payloads follow heads of any length, so the field stands at odd
// addresses, and hosts may be big-endian.
void WriteLittleEndian32(char* bytes, std::uint32_t value) {
    for (unsigned int i = 0; i < 4; ++i) {
        bytes[i] = static_cast<char>(static_cast<unsigned char>(value >> (8 * i)));
    }
}

// One byte for the ID: larger ones cannot be told apart by the device. IDs end at 20.
void WriteClientFrameHead(char* frame, std::uint32_t payloadLen, int clientID) {
    frame[0] = static_cast<char>(CLIENT_FRAME_HEAD_LENGTH);
    WriteLittleEndian32(frame + 1, payloadLen);
    frame[COMMON_HEAD_LENGTH] = static_cast<char>(static_cast<unsigned char>(clientID));
}

// The caller has checked that the head fits into one byte. It copies the name itself, with a bounded function
// that wants room for a terminator.
char* WriteServerFrameHead(char* frame, std::uint32_t payloadLen, const std::vector<unsigned int>& clientIDs,
                           const std::string& serviceName) {
    const std::size_t headLen = SERVER_FRAME_FIXED_HEAD_LENGTH + clientIDs.size() + serviceName.size();
    frame[0] = static_cast<char>(static_cast<unsigned char>(headLen));
    WriteLittleEndian32(frame + 1, payloadLen);
    char* position = frame + COMMON_HEAD_LENGTH;
    *position++ = static_cast<char>(static_cast<unsigned char>(clientIDs.size()));
    for (const unsigned int clientID : clientIDs) {
        *position++ = static_cast<char>(static_cast<unsigned char>(clientID));
    }
    *position++ = static_cast<char>(static_cast<unsigned char>(serviceName.size()));
    return position;
}

// The payload begins where the fields say, not where headLen does; for well-formed frames both agree. A
// damaged frame makes position go at most FRAME_SPARE_LENGTH beyond the beginning of the frame: the bytes
// read are there, and the subtraction at the end cannot become negative.
FrameDamage ReadServerFrame(char* frame, unsigned int length, ServerFrame& fields) {
    if (length < MIN_SERVER_FRAME_LENGTH) {
        return FrameDamage::TOO_SHORT;
    }
    fields.payloadLen = PayloadLengthOf(frame);
    if (fields.payloadLen > MAX_SERVER_FRAME_PAYLOAD) {
        return FrameDamage::PAYLOAD_LENGTH;
    }
    char* position = frame + COMMON_HEAD_LENGTH;
    fields.clientNum = static_cast<unsigned char>(*position++);
    if (fields.clientNum > MAX_FRAME_CLIENTS) {
        return FrameDamage::CLIENT_COUNT;
    }
    fields.clientIDs = reinterpret_cast<const unsigned char*>(position);
    position += fields.clientNum;
    fields.nameLen = static_cast<unsigned char>(*position++);
    if (fields.nameLen > MAX_FRAME_NAME_LENGTH) {
        return FrameDamage::NAME_LENGTH;
    }
    fields.name = position;
    fields.payload = position + fields.nameLen;
    // Cannot happen for frames cut by their own lengths; callers that pass raw bytes can get here.
    const auto offset = static_cast<unsigned int>(fields.payload - frame);
    return fields.payloadLen > length + FRAME_SPARE_LENGTH - offset ? FrameDamage::PAYLOAD_MISSING
                                                                    : FrameDamage::NONE;
}

}  // namespace lumoraAiModule
