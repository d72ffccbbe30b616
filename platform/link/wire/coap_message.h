// CoAP messages (RFC 7252, section 3) as values, and their form on the wire.
//
// libcoap does not export its codec, so messages of the multicast sockets are coded here. The decoder reads
// bytes that any host may have sent, and must survive all of them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace lumora_link {

enum class MessageType : std::uint8_t { Confirmable = 0, NonConfirmable = 1, Acknowledgement = 2, Reset = 3 };

constexpr std::uint8_t MakeCode(unsigned codeClass, unsigned detail) {
    return static_cast<std::uint8_t>(codeClass << 5 | detail);
}

namespace code {
constexpr std::uint8_t EMPTY = 0;
constexpr std::uint8_t GET = MakeCode(0, 1);
constexpr std::uint8_t POST = MakeCode(0, 2);
constexpr std::uint8_t PUT = MakeCode(0, 3);
constexpr std::uint8_t DELETE = MakeCode(0, 4);
constexpr std::uint8_t DELETED = MakeCode(2, 2);
constexpr std::uint8_t CHANGED = MakeCode(2, 4);
constexpr std::uint8_t CONTENT = MakeCode(2, 5);
constexpr std::uint8_t CONTINUE = MakeCode(2, 31);
constexpr std::uint8_t BAD_REQUEST = MakeCode(4, 0);
constexpr std::uint8_t NOT_FOUND = MakeCode(4, 4);
constexpr std::uint8_t NOT_ALLOWED = MakeCode(4, 5);
constexpr std::uint8_t INCOMPLETE = MakeCode(4, 8);
constexpr std::uint8_t CONFLICT = MakeCode(4, 9);
constexpr std::uint8_t TOO_LARGE = MakeCode(4, 13);
constexpr std::uint8_t INTERNAL_ERROR = MakeCode(5, 0);
constexpr std::uint8_t UNAVAILABLE = MakeCode(5, 3);

constexpr bool IsRequest(std::uint8_t value) { return value >= GET && value <= DELETE; }
constexpr bool IsSuccess(std::uint8_t value) { return value >> 5 == 2; }
}  // namespace code

namespace option {
constexpr std::uint16_t URI_PATH = 11;
constexpr std::uint16_t CONTENT_FORMAT = 12;
constexpr std::uint16_t URI_QUERY = 15;
constexpr std::uint16_t BLOCK1 = 27;
// From the range for experiments. Even numbers are elective: a server that does not know them passes over
// them.
constexpr std::uint16_t REQUESTER = 65000;
constexpr std::uint16_t KNOWN_NODES = 65008;
constexpr std::uint16_t NODE_COUNT = 65016;
constexpr std::uint16_t LOOK_ROUND = 65024;
}  // namespace option

struct CoapOption {
    std::uint16_t number = 0;
    std::string value;

    bool operator==(const CoapOption& other) const { return number == other.number && value == other.value; }
};

struct CoapMessage {
    MessageType type = MessageType::NonConfirmable;
    std::uint8_t code = code::EMPTY;
    std::uint16_t messageId = 0;
    std::string token;
    std::vector<CoapOption> options;  // ascending by number once serialised
    std::string payload;

    // The first option of that number, or null.
    const std::string* Find(std::uint16_t number) const;
    // The values of that number, put together with the separator between them.
    std::string Joined(std::uint16_t number, std::string_view separator) const;
    void Add(std::uint16_t number, std::string value) { options.push_back({number, std::move(value)}); }
};

// Options may stand in any order; those of one number keep theirs.
std::string SerializeMessage(const CoapMessage& message);

// Empty unless the bytes are exactly one well-formed message of version 1.
std::optional<CoapMessage> ParseMessage(std::string_view bytes);

// The shortest big-endian form, as options carry numbers (RFC 7252, section 3.2).
std::string EncodeUint(std::uint32_t value);
std::uint32_t DecodeUint(std::string_view bytes);

}  // namespace lumora_link
