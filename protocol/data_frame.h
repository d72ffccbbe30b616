// The frames that carry application data over a TCP stream, as pure functions over bytes.
//
// Both kinds begin with the length of the head (one byte) and of the payload (four bytes, little-endian on
// every host). docs/wire.md shows them byte by byte.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace lumoraAiModule {

constexpr unsigned int COMMON_HEAD_LENGTH = 5;  // head length and payload length

// Client to server: a fixed head that ends with the low byte of the client ID.
constexpr unsigned int CLIENT_FRAME_HEAD_LENGTH = 6;
constexpr unsigned int MAX_CLIENT_FRAME_PAYLOAD = 5242886;

// Server to client: count and IDs of the addressed clients, length and text of the service name.
constexpr unsigned int SERVER_FRAME_FIXED_HEAD_LENGTH = 7;
constexpr unsigned int MAX_SERVER_FRAME_HEAD_LENGTH = 100;
constexpr unsigned int MAX_SERVER_FRAME_PAYLOAD = 1024000;
constexpr unsigned int MIN_SERVER_FRAME_LENGTH = 10;
constexpr unsigned int MAX_FRAME_CLIENTS = 20;
constexpr unsigned int MAX_FRAME_NAME_LENGTH = 40;

// How far the fields of a server frame may reach beyond what its two lengths promise: the reader trusts the
// fields, so every buffer that frames are read from carries this many readable bytes behind its data.
constexpr unsigned int FRAME_SPARE_LENGTH =
    SERVER_FRAME_FIXED_HEAD_LENGTH + MAX_FRAME_CLIENTS + MAX_FRAME_NAME_LENGTH;

// From this payload on a frame is not built in one piece: head and payload are handed to the transport apart,
// because copying a large payload would cost more than a second piece of a write.
constexpr unsigned int MIN_APART_PAYLOAD = 65536;
inline bool IsSentApart(unsigned int payloadLen) {
    return payloadLen >= MIN_APART_PAYLOAD && payloadLen <= MAX_CLIENT_FRAME_PAYLOAD;
}

// Inline, so that compilers reduce it to one load on little-endian hosts.
inline std::uint32_t ReadLittleEndian32(const char* bytes) {
    const auto* octets = reinterpret_cast<const unsigned char*>(bytes);
    return static_cast<std::uint32_t>(octets[0]) | static_cast<std::uint32_t>(octets[1]) << 8 |
           static_cast<std::uint32_t>(octets[2]) << 16 | static_cast<std::uint32_t>(octets[3]) << 24;
}
void WriteLittleEndian32(char* bytes, std::uint32_t value);

inline unsigned int HeadLengthOf(const char* frame) { return static_cast<unsigned char>(frame[0]); }
inline std::uint32_t PayloadLengthOf(const char* frame) { return ReadLittleEndian32(frame + 1); }

// The number of payload bytes among those written; 0 if not even the head was written.
inline unsigned int PayloadWritten(unsigned int written, unsigned int headLength) {
    return written > headLength ? written - headLength : 0;
}

void WriteClientFrameHead(char* frame, std::uint32_t payloadLen, int clientID);

// Writes everything before the service name and returns where the name goes.
char* WriteServerFrameHead(char* frame, std::uint32_t payloadLen, const std::vector<unsigned int>& clientIDs,
                           const std::string& serviceName);

// The fields of a server frame. The pointers lead into the frame's buffer.
struct ServerFrame {
    std::uint32_t payloadLen = 0;
    unsigned int clientNum = 0;
    const unsigned char* clientIDs = nullptr;
    unsigned int nameLen = 0;
    const char* name = nullptr;
    char* payload = nullptr;
};

enum class FrameDamage { NONE, TOO_SHORT, PAYLOAD_LENGTH, CLIENT_COUNT, NAME_LENGTH, PAYLOAD_MISSING };

// Reads the fields up to the first damaged one, which is still stored. Up to FRAME_SPARE_LENGTH bytes behind
// length may be looked at.
FrameDamage ReadServerFrame(char* frame, unsigned int length, ServerFrame& fields);

}  // namespace lumoraAiModule
