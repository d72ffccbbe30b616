#include "hub/core/text.h"

#include <cstdint>

namespace lumora_hub {

namespace {

// The length of the UTF-8 character at the beginning of text, and its code; 0 if there is none.
std::size_t FirstCharacter(std::string_view text, std::uint32_t& code) {
    const auto byte = [&](std::size_t at) { return static_cast<std::uint8_t>(text[at]); };
    const std::uint8_t first = byte(0);
    if (first < 0x80) {
        code = first;
        return 1;
    }
    const std::size_t length = first >= 0xF0 ? 4 : first >= 0xE0 ? 3 : 2;
    if (first < 0xC2 || first > 0xF4 || text.size() < length) {
        return 0;
    }
    code = first & (0x7FU >> length);
    for (std::size_t at = 1; at < length; ++at) {
        if ((byte(at) & 0xC0) != 0x80) {
            return 0;
        }
        code = (code << 6) | (byte(at) & 0x3FU);
    }
    constexpr std::uint32_t SHORTEST[] = {0, 0, 0x80, 0x800, 0x10000};
    const bool isSurrogate = code >= 0xD800 && code <= 0xDFFF;
    return code < SHORTEST[length] || code > 0x10FFFF || isSurrogate ? 0 : length;
}

}  // namespace

bool IsText(std::string_view bytes) {
    while (!bytes.empty()) {
        std::uint32_t code = 0;
        const std::size_t length = FirstCharacter(bytes, code);
        const bool isControl = (code < 0x20 && code != '\t' && code != '\n' && code != '\r') || code == 0x7F;
        if (length == 0 || isControl) {
            return false;
        }
        bytes.remove_prefix(length);
    }
    return true;
}

std::string Utf8(std::string_view text) {
    std::string good;
    while (!text.empty()) {
        std::uint32_t code = 0;
        const std::size_t length = FirstCharacter(text, code);
        good += length == 0 ? std::string_view("\xEF\xBF\xBD") : text.substr(0, length);
        text.remove_prefix(length == 0 ? 1 : length);
    }
    return good;
}

}  // namespace lumora_hub
