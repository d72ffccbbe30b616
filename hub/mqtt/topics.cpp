#include "hub/mqtt/topics.h"

#include <mosquitto.h>

namespace lumora_hub {

namespace {

constexpr std::string_view DIGITS = "0123456789ABCDEF";
constexpr std::string_view REPLY = "reply/";

void AppendEscaped(std::string& out, char byte) {
    const auto value = static_cast<unsigned char>(byte);
    out += '%';
    out += DIGITS[value >> 4U];
    out += DIGITS[value & 0xFU];
}

bool IsAscii(char byte) { return static_cast<unsigned char>(byte) < 0x80; }

bool NeedsEscape(char byte) {
    return static_cast<unsigned char>(byte) < 0x20 || byte == 0x7F || byte == '/' || byte == '+' ||
           byte == '#' || byte == '%';
}

std::string Encode(std::string_view name, bool asAscii) {
    std::string out;
    out.reserve(name.size());
    for (const char byte : name) {
        if (NeedsEscape(byte) || (asAscii && !IsAscii(byte))) {
            AppendEscaped(out, byte);
        } else {
            out += byte;
        }
    }
    return out;
}

// -1 if it is none.
int DigitOf(char digit) {
    if (digit >= '0' && digit <= '9') {
        return digit - '0';
    }
    const char upper = static_cast<char>(digit & ~0x20);
    return upper >= 'A' && upper <= 'F' ? upper - 'A' + 10 : -1;
}

}  // namespace

bool IsMqttText(std::string_view text) {
    return mosquitto_validate_utf8(text.data(), static_cast<int>(text.size())) == MOSQ_ERR_SUCCESS;
}

std::string EncodeLevel(std::string_view name) {
    std::string out = Encode(name, false);
    return IsMqttText(out) ? out : Encode(name, true);
}

std::string EncodeService(std::string_view name) {
    std::string out = EncodeLevel(name);
    if (name == "command" || name == "send" || name == "online") {
        std::string escaped;
        AppendEscaped(escaped, out.front());
        out.replace(0, 1, escaped);
    }
    return out;
}

std::optional<std::string> DecodeLevel(std::string_view level) {
    std::string out;
    out.reserve(level.size());
    for (std::size_t at = 0; at < level.size(); ++at) {
        if (level[at] != '%') {
            out += level[at];
            continue;
        }
        const int high = at + 2 < level.size() ? DigitOf(level[at + 1]) : -1;
        const int low = at + 2 < level.size() ? DigitOf(level[at + 2]) : -1;
        if (high < 0 || low < 0) {
            return std::nullopt;
        }
        out += static_cast<char>(high * 16 + low);
        at += 2;
    }
    return out;
}

std::string ReadableText(std::string_view text) {
    return IsMqttText(text) ? std::string(text) : EncodeLevel(text);
}

Topics::Topics(const std::string& prefix, const std::string& hub)
    : mPrefix(prefix + '/'), mHubOnline(mPrefix + "hub/" + EncodeService(hub) + "/online") {}

std::optional<RequestTopic> Topics::Request(std::string_view topic) const {
    const auto rest = Rest(topic);
    const std::size_t end = rest ? rest->find('/') : std::string_view::npos;
    if (end == std::string_view::npos) {
        return std::nullopt;
    }
    const auto device = DecodeLevel(rest->substr(0, end));
    const std::string_view what = rest->substr(end + 1);
    if (!device || device->empty()) {
        return std::nullopt;
    }
    if (what == "send") {
        return RequestTopic{false, *device, ""};
    }
    constexpr std::string_view COMMAND = "command/";
    const auto name =
        what.substr(0, COMMAND.size()) == COMMAND ? DecodeLevel(what.substr(COMMAND.size())) : std::nullopt;
    return name ? std::make_optional(RequestTopic{true, *device, *name}) : std::nullopt;
}

std::optional<std::string> Topics::Described(std::string_view topic) const {
    const auto rest = Rest(topic);
    return rest && rest->find('/') == std::string_view::npos ? DecodeLevel(*rest) : std::nullopt;
}

bool Topics::IsReply(const std::string& topic) const {
    const auto rest = Rest(topic);
    return rest && rest->size() > REPLY.size() && rest->substr(0, REPLY.size()) == REPLY &&
           mosquitto_pub_topic_check(topic.c_str()) == MOSQ_ERR_SUCCESS;
}

std::optional<std::string_view> Topics::Rest(std::string_view topic) const {
    if (topic.substr(0, mPrefix.size()) != mPrefix) {
        return std::nullopt;
    }
    return topic.substr(mPrefix.size());
}

}  // namespace lumora_hub
