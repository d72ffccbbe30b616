#include "platform/link/wire/coap_message.h"

#include <algorithm>

#include "platform/link/wire/byte_reader.h"

namespace lumora_link {

namespace {

constexpr unsigned VERSION = 1;
constexpr std::size_t MAX_TOKEN_BYTES = 8;
constexpr unsigned char PAYLOAD_MARKER = 0xff;

// Deltas and lengths share one scheme: up to 12 in the nibble, then one or two bytes more.
constexpr unsigned ONE_BYTE_MORE = 13;
constexpr unsigned TWO_BYTES_MORE = 14;
constexpr unsigned RESERVED = 15;
constexpr unsigned ONE_BYTE_BASE = 13;
constexpr unsigned TWO_BYTE_BASE = 269;

unsigned NibbleOf(std::size_t value) {
    if (value < ONE_BYTE_BASE) {
        return static_cast<unsigned>(value);
    }
    return value < TWO_BYTE_BASE ? ONE_BYTE_MORE : TWO_BYTES_MORE;
}

void AppendExtension(std::string& out, std::size_t value) {
    if (value >= TWO_BYTE_BASE) {
        AppendBigEndian(out, value - TWO_BYTE_BASE, 2);
    } else if (value >= ONE_BYTE_BASE) {
        AppendBigEndian(out, value - ONE_BYTE_BASE, 1);
    }
}

std::optional<std::size_t> ReadExtension(ByteReader& reader, unsigned nibble) {
    if (nibble == RESERVED) {
        return std::nullopt;
    }
    if (nibble < ONE_BYTE_MORE) {
        return nibble;
    }
    const bool one = nibble == ONE_BYTE_MORE;
    const auto extra = static_cast<std::size_t>(reader.Number(one ? 1 : 2));
    return extra + (one ? ONE_BYTE_BASE : TWO_BYTE_BASE);
}

void AppendOption(std::string& out, std::uint16_t previous, const CoapOption& option) {
    const std::size_t delta = static_cast<std::size_t>(option.number - previous);
    out.push_back(static_cast<char>(NibbleOf(delta) << 4 | NibbleOf(option.value.size())));
    AppendExtension(out, delta);
    AppendExtension(out, option.value.size());
    out += option.value;
}

// Reads up to the payload marker or the end. False if the bytes are damaged.
bool ReadOptions(ByteReader& reader, CoapMessage& message) {
    std::size_t number = 0;
    while (!reader.AtEnd()) {
        const unsigned head = static_cast<unsigned>(reader.Number(1));
        if (head == PAYLOAD_MARKER) {
            message.payload = reader.Rest();
            return !message.payload.empty();
        }
        const auto delta = ReadExtension(reader, head >> 4);
        const auto length = ReadExtension(reader, head & 0xf);
        if (!delta || !length) {
            return false;
        }
        number += *delta;
        std::string value = reader.Bytes(*length);
        if (reader.Failed() || number > UINT16_MAX) {
            return false;
        }
        message.Add(static_cast<std::uint16_t>(number), std::move(value));
    }
    return !reader.Failed();
}

}  // namespace

const std::string* CoapMessage::Find(std::uint16_t number) const {
    const auto found = std::find_if(options.begin(), options.end(),
                                    [number](const CoapOption& option) { return option.number == number; });
    return found == options.end() ? nullptr : &found->value;
}

std::string CoapMessage::Joined(std::uint16_t number, std::string_view separator) const {
    std::string joined;
    bool first = true;
    for (const CoapOption& option : options) {
        if (option.number != number) {
            continue;
        }
        if (!first) {
            joined += separator;
        }
        joined += option.value;
        first = false;
    }
    return joined;
}

std::string SerializeMessage(const CoapMessage& message) {
    std::string out;
    out.push_back(static_cast<char>(VERSION << 6 | static_cast<unsigned>(message.type) << 4 |
                                    static_cast<unsigned>(message.token.size())));
    AppendBigEndian(out, message.code, 1);
    AppendBigEndian(out, message.messageId, 2);
    out += message.token;

    std::vector<const CoapOption*> sorted;  // those of one number stay in their order
    for (const CoapOption& option : message.options) {
        const auto place = std::find_if(sorted.begin(), sorted.end(), [&](const CoapOption* other) {
            return other->number > option.number;
        });
        sorted.insert(place, &option);
    }
    std::uint16_t previous = 0;
    for (const CoapOption* option : sorted) {
        AppendOption(out, previous, *option);
        previous = option->number;
    }
    if (!message.payload.empty()) {
        out.push_back(static_cast<char>(PAYLOAD_MARKER));
        out += message.payload;
    }
    return out;
}

std::optional<CoapMessage> ParseMessage(std::string_view bytes) {
    ByteReader reader(bytes);
    const unsigned head = static_cast<unsigned>(reader.Number(1));
    const std::size_t tokenBytes = head & 0xf;
    CoapMessage message;
    message.type = static_cast<MessageType>(head >> 4 & 3);
    message.code = static_cast<std::uint8_t>(reader.Number(1));
    message.messageId = static_cast<std::uint16_t>(reader.Number(2));
    message.token = reader.Bytes(tokenBytes);
    if (reader.Failed() || head >> 6 != VERSION || tokenBytes > MAX_TOKEN_BYTES) {
        return std::nullopt;
    }
    if (message.code == code::EMPTY) {
        // An empty message is the head alone.
        return tokenBytes == 0 && reader.AtEnd() ? std::make_optional(message) : std::nullopt;
    }
    return ReadOptions(reader, message) ? std::make_optional(std::move(message)) : std::nullopt;
}

std::string EncodeUint(std::uint32_t value) {
    std::size_t bytes = 0;
    while (bytes < 4 && value >> (8 * bytes) != 0) {
        ++bytes;
    }
    std::string out;
    AppendBigEndian(out, value, bytes);
    return out;
}

std::uint32_t DecodeUint(std::string_view bytes) {
    ByteReader reader(bytes.size() > 4 ? std::string_view() : bytes);
    return static_cast<std::uint32_t>(reader.Number(bytes.size() > 4 ? 0 : bytes.size()));
}

}  // namespace lumora_link
