#include "request_client.h"

#include <algorithm>
#include <array>

#include "link_format.h"

namespace lumora_link {

namespace {

// When the copies of one message leave. The last pause repeats while the peer is alive.
constexpr std::array<Milliseconds, 7> kPauses = {Milliseconds(300),  Milliseconds(500),  Milliseconds(700),
                                                 Milliseconds(1000), Milliseconds(1000), Milliseconds(1000),
                                                 Milliseconds(2000)};
constexpr Milliseconds kFirstPing{2000};
constexpr Milliseconds kPingInterval{500};

// libcoap reads datagrams of at most 1,472 bytes; the head and the other options need the rest.
constexpr std::size_t kMaxKeyAndValue = 1300;
constexpr unsigned kBlockExponent = 4;
constexpr std::size_t kBlockBytes = 16U << kBlockExponent;

std::vector<std::string> CutIntoBlocks(const std::string& key, const std::string& value) {
    if (key.size() + value.size() <= kMaxKeyAndValue) {
        return {value};
    }
    std::vector<std::string> blocks;
    for (std::size_t at = 0; at < value.size(); at += kBlockBytes) {
        blocks.push_back(value.substr(at, kBlockBytes));
    }
    return blocks;
}

}  // namespace

RequestClient::RequestClient(const Self& self, Labels& labels, Network& network, Application& application)
    : self_(self), labels_(labels), network_(network), application_(application) {}

void RequestClient::Start(OutgoingRequest request, TimePoint now) {
    const ConversationId conversation = labels_.NextConversation();
    Exchange& exchange = exchanges_[conversation];
    exchange.request = std::move(request);
    exchange.blocks = CutIntoBlocks(exchange.request.key, exchange.request.value);
    exchange.start = exchange.heard = now;
    exchange.firstOfBody = sequence_ + 1;
    exchange.pingToken = labels_.NextToken();
    exchange.nextPing = now + kFirstPing;
    BeginMessage(conversation, exchange, now);
}

bool RequestClient::OnAnswer(ConversationId conversation, const CoapMessage& answer, TimePoint now) {
    const auto at = exchanges_.find(conversation);
    if (at == exchanges_.end()) {
        return false;
    }
    Exchange& exchange = at->second;
    if (answer.token == exchange.pingToken) {
        exchange.heard = now;
        return true;
    }
    if (answer.token != exchange.message.token) {
        return true;
    }
    exchange.heard = now;
    if (answer.code == code::kContinue && exchange.block + 1 < exchange.blocks.size()) {
        ++exchange.block;
        BeginMessage(conversation, exchange, now);
    } else {
        End(at, {answer.code, answer.payload});
    }
    return true;
}

// To be reached is a word of the peer, and the time for the answer begins with the first copy.
void RequestClient::OnReached(ConversationId conversation, TimePoint now) {
    const auto at = exchanges_.find(conversation);
    if (at != exchanges_.end()) {
        at->second.heard = now;
        at->second.copies = 1;
        at->second.nextCopy = now + kPauses.front();
    }
}

std::optional<Endpoint> RequestClient::OnRefused(ConversationId conversation) {
    const auto at = exchanges_.find(conversation);
    if (at == exchanges_.end()) {
        return std::nullopt;
    }
    const Endpoint to = at->second.request.to;
    End(at, {});
    return to;
}

void RequestClient::Tick(TimePoint now) {
    // Sending may find the port refused and end exchanges at once, so none is held across it.
    std::vector<ConversationId> open;
    for (const auto& [conversation, exchange] : exchanges_) {
        open.push_back(conversation);
    }
    for (const ConversationId conversation : open) {
        const auto at = exchanges_.find(conversation);
        Exchange& exchange = at->second;
        if (now - exchange.heard >= kSilence || now - exchange.start >= kLongest) {
            End(at, {});
            continue;
        }
        if (now >= exchange.nextCopy) {
            SendCopy(conversation, exchange, now);
        }
        if (now >= exchange.nextPing) {
            SendPing(conversation, exchange, now);
        }
    }
}

TimePoint RequestClient::NextDeadline() const {
    TimePoint next = TimePoint::max();
    for (const auto& [conversation, exchange] : exchanges_) {
        next = std::min({next, exchange.nextCopy, exchange.nextPing, exchange.heard + kSilence,
                         exchange.start + kLongest});
    }
    return next;
}

void RequestClient::Close() {
    while (!exchanges_.empty()) {
        End(exchanges_.begin(), {});
    }
}

void RequestClient::BeginMessage(ConversationId conversation, Exchange& exchange, TimePoint now) {
    exchange.sequence = ++sequence_;
    exchange.message = Compose(exchange);
    exchange.copies = 0;
    SendCopy(conversation, exchange, now);
}

CoapMessage RequestClient::Compose(const Exchange& exchange) {
    CoapMessage message;
    message.type = MessageType::Confirmable;
    message.code = exchange.request.method;
    message.messageId = labels_.NextMessageId();
    message.token = labels_.NextToken();
    AddKey(message, exchange.request.key);
    if (exchange.blocks.size() > 1) {
        const bool more = exchange.block + 1 < exchange.blocks.size();
        const Block block{static_cast<std::uint32_t>(exchange.block), more, kBlockExponent};
        message.Add(option::kBlock1, EncodeBlock(block));
    }
    Requester requester;
    requester.identity = self_.identity;
    requester.port = self_.port;
    requester.sequence = exchange.sequence;
    requester.oldestOpen = OldestOpen();
    requester.firstOfBody = exchange.firstOfBody;
    message.Add(option::kRequester, EncodeRequester(requester));
    message.payload = exchange.blocks.empty() ? std::string() : exchange.blocks[exchange.block];
    return message;
}

void RequestClient::SendCopy(ConversationId conversation, Exchange& exchange, TimePoint now) {
    exchange.nextCopy = now + kPauses[std::min<std::size_t>(exchange.copies, kPauses.size() - 1)];
    ++exchange.copies;
    network_.Transmit(conversation, exchange.request.to, exchange.message);
}

void RequestClient::SendPing(ConversationId conversation, Exchange& exchange, TimePoint now) {
    exchange.nextPing = now + kPingInterval;
    CoapMessage ping = MakePing();
    ping.token = exchange.pingToken;
    ping.messageId = labels_.NextMessageId();
    network_.Transmit(conversation, exchange.request.to, ping);
}

std::uint32_t RequestClient::OldestOpen() const {
    std::uint32_t oldest = sequence_;
    for (const auto& [conversation, exchange] : exchanges_) {
        // Sequence numbers wrap; their distance does not.
        if (static_cast<std::int32_t>(exchange.sequence - oldest) < 0) {
            oldest = exchange.sequence;
        }
    }
    return oldest;
}

RequestClient::Exchanges::iterator RequestClient::End(Exchanges::iterator exchange, Outcome outcome) {
    network_.Hang(exchange->first);
    const std::uint64_t ticket = exchange->second.request.ticket;
    const auto next = exchanges_.erase(exchange);
    application_.RequestEnded(ticket, std::move(outcome));
    return next;
}

}  // namespace lumora_link
