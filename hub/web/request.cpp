#include "hub/web/request.h"

#include <cstdint>

namespace lumora_hub::web {
namespace {

constexpr std::size_t MOST_PAIRS = 16;

int HexValue(char digit) {
    if (digit >= '0' && digit <= '9') {
        return digit - '0';
    }
    const char lower = static_cast<char>(digit | 0x20);
    return lower >= 'a' && lower <= 'f' ? lower - 'a' + 10 : -1;
}

std::string_view Trimmed(std::string_view text) {
    while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) {
        text.remove_prefix(1);
    }
    while (!text.empty() && (text.back() == ' ' || text.back() == '\t')) {
        text.remove_suffix(1);
    }
    return text;
}

// Cuts off the text before the first separator, and the separator with it.
std::string_view CutFirst(std::string_view& rest, char separator) {
    const std::size_t end = rest.find(separator);
    const std::string_view first = rest.substr(0, end);
    rest = end == std::string_view::npos ? std::string_view() : rest.substr(end + 1);
    return first;
}

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

std::string PercentDecode(std::string_view text, bool plusIsBlank) {
    std::string decoded;
    decoded.reserve(text.size());
    for (std::size_t at = 0; at < text.size(); ++at) {
        const bool hasCode = text[at] == '%' && at + 2 < text.size() && HexValue(text[at + 1]) >= 0 &&
                             HexValue(text[at + 2]) >= 0;
        if (hasCode) {
            decoded += static_cast<char>(HexValue(text[at + 1]) * 16 + HexValue(text[at + 2]));
            at += 2;
        } else {
            decoded += plusIsBlank && text[at] == '+' ? ' ' : text[at];
        }
    }
    return decoded;
}

std::map<std::string, std::string> ReadForm(std::string_view text) {
    std::map<std::string, std::string> pairs;
    while (!text.empty() && pairs.size() < MOST_PAIRS) {
        std::string_view value = CutFirst(text, '&');
        const std::string_view name = CutFirst(value, '=');
        pairs[PercentDecode(name, true)] = PercentDecode(value, true);
    }
    return pairs;
}

std::string CookieValue(std::string_view header, std::string_view name) {
    while (!header.empty()) {
        std::string_view value = CutFirst(header, ';');
        if (Trimmed(CutFirst(value, '=')) == name) {
            return std::string(Trimmed(value));
        }
    }
    return {};
}

std::string HostName(std::string_view host) {
    std::string_view name = host;
    std::string_view port;
    if (!host.empty() && host.front() == '[') {
        const std::size_t end = host.find(']');
        if (end == std::string_view::npos) {
            return {};
        }
        name = host.substr(1, end - 1);
        port = host.substr(end + 1);
    } else {
        const std::size_t colon = host.find(':');
        name = host.substr(0, colon);
        port = colon == std::string_view::npos ? std::string_view() : host.substr(colon);
    }
    if (!port.empty() && (port.front() != ':' || port.find_first_not_of("0123456789", 1) != port.npos)) {
        return {};
    }
    std::string lower;
    for (const char character : name) {
        lower += character >= 'A' && character <= 'Z' ? static_cast<char>(character | 0x20) : character;
    }
    return lower;
}

bool SameSecret(std::string_view left, std::string_view right) {
    if (left.size() != right.size()) {
        return false;
    }
    volatile unsigned char difference = 0;  // volatile: the compiler must not end the loop early
    for (std::size_t at = 0; at < left.size(); ++at) {
        difference = static_cast<unsigned char>(difference | (left[at] ^ right[at]));
    }
    return difference == 0;
}

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

}  // namespace lumora_hub::web
