#include "platform/link/wire/link_format.h"

#include <algorithm>
#include <charconv>
#include <cinttypes>
#include <cstdio>

namespace lumora_link {

namespace {

constexpr std::string_view SCHEME = "coap://";
constexpr std::string_view SECURED_SCHEME = "coaps://";
constexpr std::string_view PATH = "/lumora";

std::string Quoted(const std::string& text) {
    std::string out = "\"";
    for (const char byte : text) {
        if (byte == '"' || byte == '\\') {
            out.push_back('\\');
        }
        out.push_back(byte);
    }
    return out + "\"";
}

bool TakePrefix(std::string_view& text, std::string_view prefix) {
    if (text.substr(0, prefix.size()) != prefix) {
        return false;
    }
    text.remove_prefix(prefix.size());
    return true;
}

// The text of a quoted string that begins at the front. Empty if it has no end.
std::optional<std::string> TakeQuoted(std::string_view& text) {
    if (!TakePrefix(text, "\"")) {
        return std::nullopt;
    }
    std::string value;
    for (std::size_t at = 0; at < text.size(); ++at) {
        if (text[at] == '"') {
            text.remove_prefix(at + 1);
            return value;
        }
        if (text[at] == '\\' && ++at == text.size()) {
            break;
        }
        value.push_back(text[at]);
    }
    return std::nullopt;
}

std::optional<std::string> TakeValue(std::string_view& text) {
    if (text.substr(0, 1) == "\"") {
        return TakeQuoted(text);
    }
    const std::string_view value = text.substr(0, text.find_first_of(";,"));
    text.remove_prefix(value.size());
    return std::string(value);
}

template <typename Number>
bool ReadNumber(const std::string& text, int base, Number& number) {
    const char* last = text.data() + text.size();
    const auto [end, error] = std::from_chars(text.data(), last, number, base);
    return error == std::errc() && end == last;
}

bool TakeUri(std::string_view& text, NodeDescription& into) {
    if (!TakePrefix(text, "<")) {
        return false;
    }
    into.secured = TakePrefix(text, SECURED_SCHEME);
    if (!into.secured && !TakePrefix(text, SCHEME)) {
        return false;
    }
    const std::string_view authority = text.substr(0, text.find(PATH));
    const auto endpoint = ParseEndpoint(std::string(authority), MulticastGroup().port);
    text.remove_prefix(authority.size());
    const bool path = TakePrefix(text, PATH) && TakePrefix(text, ">");
    if (!endpoint || !path || (into.secured && endpoint->port < 2)) {
        return false;
    }
    into.endpoint = *endpoint;
    into.endpoint.port = static_cast<std::uint16_t>(endpoint->port - (into.secured ? 1 : 0));
    return true;
}

// Cuts off the first link of a list, up to the comma that no quotes and no angle brackets enclose.
std::string_view TakeLink(std::string_view& links) {
    bool quoted = false;
    bool inUri = false;
    std::size_t at = 0;
    for (; at < links.size() && (quoted || inUri || links[at] != ','); ++at) {
        if (quoted && links[at] == '\\') {
            ++at;
        } else if (links[at] == '"' && !inUri) {
            quoted = !quoted;
        } else if (!quoted && (links[at] == '<' || links[at] == '>')) {
            inUri = links[at] == '<';
        }
    }
    const std::string_view link = links.substr(0, at);
    links.remove_prefix(std::min(at + 1, links.size()));
    return link;
}

struct Attributes {
    bool id = false;
    bool instance = false;
};

bool Apply(const std::string& name, const std::string& value, NodeDescription& into, Attributes& seen) {
    if (name == "ep") {
        return seen.id = ReadNumber(value, 16, into.identity.id);
    }
    if (name == "ins") {
        return seen.instance = ReadNumber(value, 10, into.identity.instance);
    }
    if (name == "rt") {
        into.deviceType = value;
    }
    return value.size() <= MAX_TEXT_BYTES;
}

}  // namespace

std::string FormatLink(const NodeDescription& description) {
    char id[17];
    std::snprintf(id, sizeof id, "%016" PRIx64, description.identity.id);
    std::string text = "<";
    const bool secured = description.secured;
    const Endpoint endpoint = secured ? SecuredPortOf(description.endpoint) : description.endpoint;
    text.append(secured ? SECURED_SCHEME : SCHEME).append(EndpointText(endpoint)).append(PATH).append(">");
    if (description.deviceType) {
        text += ";rt=" + Quoted(*description.deviceType);
    }
    return text + ";ep=\"" + id + "\";ins=" + std::to_string(description.identity.instance);
}

std::optional<NodeDescription> ParseLink(std::string_view text) {
    NodeDescription description;
    Attributes seen;
    if (!TakeUri(text, description)) {
        return std::nullopt;
    }
    while (TakePrefix(text, ";")) {
        const std::string name(text.substr(0, text.find_first_of("=;,")));
        text.remove_prefix(name.size());
        const auto value = TakePrefix(text, "=") ? TakeValue(text) : std::make_optional<std::string>();
        if (!value || !Apply(name, *value, description, seen)) {
            return std::nullopt;
        }
    }
    const bool whole = text.empty() && seen.id && seen.instance;
    return whole ? std::make_optional(std::move(description)) : std::nullopt;
}

std::optional<NodeDescription> ParseLinkOfType(std::string_view links, const std::string& deviceType) {
    std::optional<NodeDescription> first;
    while (!links.empty()) {
        auto node = ParseLink(TakeLink(links));
        if (node && node->deviceType == deviceType) {
            return node;
        }
        first = first ? std::move(first) : std::move(node);
    }
    return first;
}

}  // namespace lumora_link
