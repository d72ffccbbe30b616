#include "hub/web/request.h"

#include <openssl/crypto.h>

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
    return left.size() == right.size() && CRYPTO_memcmp(left.data(), right.data(), left.size()) == 0;
}

}  // namespace lumora_hub::web
