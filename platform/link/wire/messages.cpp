#include "platform/link/wire/messages.h"

#include "platform/link/wire/byte_reader.h"

namespace lumora_link {

const char* const RESOURCE_PATH = "lumora";
const char* const HELLO_PATH = "lumora/hello";
const char* const GOODBYE_PATH = "lumora/goodbye";
const char* const WELL_KNOWN_PATH = ".well-known/core";

namespace {

constexpr std::size_t MAX_OPTION_BYTES = 255;
constexpr std::string_view TYPE_QUERY = "rt=";
constexpr std::uint32_t LINK_FORMAT = 40;

void AddPath(CoapMessage& message, std::string_view path) {
    while (!path.empty()) {
        const std::size_t end = std::min(path.find('/'), path.size());
        message.Add(option::URI_PATH, std::string(path.substr(0, end)));
        path.remove_prefix(std::min(end + 1, path.size()));
    }
}

}  // namespace

std::string EncodeRequester(const Requester& requester) {
    std::string out;
    AppendBigEndian(out, requester.identity.id, 8);
    AppendBigEndian(out, requester.identity.instance, 4);
    AppendBigEndian(out, requester.port, 2);
    AppendBigEndian(out, requester.sequence, 4);
    AppendBigEndian(out, requester.oldestOpen, 4);
    AppendBigEndian(out, requester.firstOfBody, 4);
    if (requester.secret != 0) {
        AppendBigEndian(out, requester.secret, 8);
    }
    return out;
}

std::optional<Requester> DecodeRequester(const CoapMessage& message) {
    const std::string* bytes = message.Find(option::REQUESTER);
    if (bytes == nullptr) {
        return std::nullopt;
    }
    ByteReader reader(*bytes);
    Requester requester;
    requester.identity.id = reader.Number(8);
    requester.identity.instance = static_cast<std::uint32_t>(reader.Number(4));
    requester.port = static_cast<std::uint16_t>(reader.Number(2));
    requester.sequence = static_cast<std::uint32_t>(reader.Number(4));
    requester.oldestOpen = static_cast<std::uint32_t>(reader.Number(4));
    requester.firstOfBody = static_cast<std::uint32_t>(reader.Number(4));
    if (!reader.AtEnd()) {
        requester.secret = reader.Number(8);
    }
    return reader.Failed() ? std::nullopt : std::make_optional(requester);
}

// RFC 7959, section 2.2: number, more, size exponent in 4 bits, in one number.
std::string EncodeBlock(const Block& block) {
    return EncodeUint(block.number << 4 | (block.more ? 8U : 0U) | block.sizeExponent);
}

std::optional<Block> FindBlock(const CoapMessage& message) {
    const std::string* bytes = message.Find(option::BLOCK1);
    if (bytes == nullptr) {
        return std::nullopt;
    }
    const std::uint32_t value = DecodeUint(*bytes);
    return Block{value >> 4, (value & 8) != 0, value & 7};
}

// Folds the id, so that all of its bits count.
NodeHint HintOf(std::uint64_t nodeId) { return static_cast<NodeHint>(nodeId ^ nodeId >> 32); }

CoapMessage MakeProbe(const std::string& deviceType, const std::string& token,
                      const std::vector<NodeHint>& known) {
    CoapMessage probe;
    probe.code = code::GET;
    probe.token = token;
    AddPath(probe, WELL_KNOWN_PATH);
    std::string query = std::string(TYPE_QUERY) + deviceType;
    if (query.size() > MAX_OPTION_BYTES) {
        // Asks for the longest prefix that fits into one option. The asker compares the whole type in the
        // answers.
        query.resize(MAX_OPTION_BYTES - 1);
        query.push_back('*');
    }
    probe.Add(option::URI_QUERY, std::move(query));
    std::string hints;
    for (std::size_t at = 0; at < known.size() && at < MAX_KNOWN_NODES; ++at) {
        AppendBigEndian(hints, known[at], sizeof(NodeHint));
    }
    if (!hints.empty()) {
        probe.Add(option::KNOWN_NODES, std::move(hints));
    }
    return probe;
}

std::set<NodeHint> KnownNodes(const CoapMessage& probe) {
    std::set<NodeHint> known;
    if (const std::string* hints = probe.Find(option::KNOWN_NODES)) {
        ByteReader reader(*hints);
        while (!reader.AtEnd()) {
            known.insert(static_cast<NodeHint>(reader.Number(sizeof(NodeHint))));
        }
    }
    return known;
}

bool IsAskedForExactly(const CoapMessage& probe, const std::string& deviceType) {
    const std::string* query = probe.Find(option::URI_QUERY);
    return query != nullptr && *query == std::string(TYPE_QUERY) + deviceType;
}

bool IsAskedFor(const CoapMessage& probe, const std::optional<std::string>& deviceType) {
    const std::string* query = probe.Find(option::URI_QUERY);
    if (query == nullptr) {
        return true;
    }
    if (!deviceType || query->compare(0, TYPE_QUERY.size(), TYPE_QUERY) != 0) {
        return false;
    }
    const std::string wanted = query->substr(TYPE_QUERY.size());
    if (wanted == *deviceType) {
        return true;
    }
    const bool prefix = !wanted.empty() && wanted.back() == '*';
    return prefix && deviceType->compare(0, wanted.size() - 1, wanted, 0, wanted.size() - 1) == 0;
}

void MarkAsLookRound(CoapMessage& probe) { probe.Add(option::LOOK_ROUND, std::string()); }

bool IsLookRound(const CoapMessage& probe) { return probe.Find(option::LOOK_ROUND) != nullptr; }

CoapMessage MakeLinkAnswer(const CoapMessage& request, const std::string& link) {
    CoapMessage answer;
    answer.type =
        request.type == MessageType::Confirmable ? MessageType::Acknowledgement : MessageType::NonConfirmable;
    answer.code = code::CONTENT;
    answer.messageId = request.messageId;
    answer.token = request.token;
    answer.Add(option::CONTENT_FORMAT, EncodeUint(LINK_FORMAT));
    answer.payload = link;
    return answer;
}

void AddCount(CoapMessage& answer, std::size_t count) {
    answer.Add(option::NODE_COUNT, EncodeUint(static_cast<std::uint32_t>(count)));
}

std::optional<std::uint32_t> CountIn(const CoapMessage& answer) {
    const std::string* count = answer.Find(option::NODE_COUNT);
    const bool valid = count != nullptr && count->size() <= sizeof(std::uint32_t);
    return valid ? std::make_optional(DecodeUint(*count)) : std::nullopt;
}

CoapMessage MakeNotice(const char* path, const std::string& link) {
    CoapMessage notice;
    notice.code = code::POST;
    AddPath(notice, path);
    notice.Add(option::CONTENT_FORMAT, EncodeUint(LINK_FORMAT));
    notice.payload = link;
    return notice;
}

CoapMessage MakePing() {
    CoapMessage ping;
    ping.type = MessageType::Confirmable;
    ping.code = code::GET;
    AddPath(ping, WELL_KNOWN_PATH);
    return ping;
}

void AddKey(CoapMessage& message, const std::string& key) {
    AddPath(message, RESOURCE_PATH);
    for (std::size_t at = 0; at < key.size(); at += MAX_OPTION_BYTES) {
        message.Add(option::URI_QUERY, key.substr(at, MAX_OPTION_BYTES));
    }
}

std::string KeyOf(const CoapMessage& message) { return message.Joined(option::URI_QUERY, ""); }

std::string PathOf(const CoapMessage& message) { return message.Joined(option::URI_PATH, "/"); }

}  // namespace lumora_link
