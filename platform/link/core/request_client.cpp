#include "platform/link/core/request_client.h"

#include <algorithm>
#include <array>

#include "platform/link/wire/link_format.h"

namespace lumora_link {

namespace {

// When the copies of one message leave. The last pause repeats while the peer is alive.
// Nine copies leave before an unacknowledged request ends.
constexpr std::array<Milliseconds, 10> PAUSES = {
    Milliseconds(300), Milliseconds(450), Milliseconds(450), Milliseconds(450),  Milliseconds(450),
    Milliseconds(450), Milliseconds(450), Milliseconds(450), Milliseconds(1000), Milliseconds(2000)};
constexpr Milliseconds HASTY_PAUSE{100};
constexpr Milliseconds FIRST_PING{2000};
constexpr Milliseconds PING_INTERVAL{500};

// libcoap reads datagrams of at most 1,472 bytes; the head and the other options need the rest.
constexpr std::size_t MAX_KEY_AND_VALUE = 1300;
// A device that answers 4.09 for ever is not asked for ever.
constexpr unsigned MAX_RESTARTS = 2;
constexpr std::size_t MAX_SECRETS = 256;
constexpr unsigned BLOCK_EXPONENT = 4;
constexpr std::size_t BLOCK_BYTES = 16U << BLOCK_EXPONENT;

std::vector<std::string> CutIntoBlocks(const std::string& key, const std::string& value) {
    if (key.size() + value.size() <= MAX_KEY_AND_VALUE) {
        return {value};
    }
    std::vector<std::string> blocks;
    for (std::size_t at = 0; at < value.size(); at += BLOCK_BYTES) {
        blocks.push_back(value.substr(at, BLOCK_BYTES));
    }
    return blocks;
}

}  // namespace

RequestClient::RequestClient(const LocalNode& localNode, IdSource& idSource, Network& network,
                             Application& application, UnansweredPeers& unanswered)
    : mLocalNode(localNode),
      mIdSource(idSource),
      mNetwork(network),
      mApplication(application),
      mUnanswered(unanswered) {}

void RequestClient::Start(OutgoingRequest request, TimePoint now) {
    const ConversationId conversation = mIdSource.NextConversation();
    Exchange& exchange = mExchanges[conversation];
    exchange.request = std::move(request);
    exchange.blocks = CutIntoBlocks(exchange.request.key, exchange.request.value);
    exchange.heard = now;
    const bool get = exchange.request.method == code::GET;
    exchange.hasty = get && mUnanswered.Contains(exchange.request.to, now);
    exchange.end = now + (exchange.hasty ? LONGEST_GET_AFTER_SILENCE : get ? LONGEST_GET : LONGEST);
    exchange.pingToken = mIdSource.NextToken();
    exchange.nextPing = now + FIRST_PING;
    BeginBody(conversation, exchange, now);
}

bool RequestClient::OnAnswer(ConversationId conversation, const CoapMessage& answer, TimePoint now) {
    const auto at = mExchanges.find(conversation);
    if (at == mExchanges.end()) {
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
    mUnanswered.Remove(exchange.request.to);
    if (answer.code == code::CONTINUE && exchange.block + 1 < exchange.blocks.size()) {
        ++exchange.block;
        BeginMessage(conversation, exchange, now);
    } else if (answer.code == code::CONFLICT && exchange.restarts < MAX_RESTARTS) {
        // The device did not run it: it believes that this request has ended. It cannot know a new secret.
        ++exchange.restarts;
        ReplaceSecret(exchange.request.to, exchange.secret);
        BeginBody(conversation, exchange, now);
    } else {
        End(at, {answer.code, answer.payload});
    }
    return true;
}

// A peer of which nothing was heard meanwhile may have been cut off; its silence has a limit of its own.
void RequestClient::OnUnacknowledged(ConversationId conversation, std::uint16_t messageId, TimePoint now) {
    const auto at = mExchanges.find(conversation);
    if (at != mExchanges.end() && at->second.message.messageId == messageId &&
        at->second.heard > at->second.begun) {
        EndUnanswered(at, now);
    }
}

// A completed handshake counts as a sign of life. The schedule of copies restarts.
void RequestClient::OnReached(ConversationId conversation, TimePoint now) {
    const auto at = mExchanges.find(conversation);
    if (at != mExchanges.end()) {
        at->second.heard = now;
        at->second.copies = 1;
        at->second.nextCopy = now + PAUSES.front();
    }
}

std::optional<Endpoint> RequestClient::OnRefused(ConversationId conversation) {
    const auto at = mExchanges.find(conversation);
    if (at == mExchanges.end()) {
        return std::nullopt;
    }
    const Endpoint to = at->second.request.to;
    End(at, {});
    return to;
}

// Another node may be at this endpoint by now, so the GET is not ended at once. With a key the next node
// would need the time of a handshake.
void RequestClient::OnPeerGone(const Endpoint& peer, TimePoint now) {
    if (mLocalNode.secured) {
        return;
    }
    mUnanswered.OnGone(peer, now);
    for (auto& [conversation, exchange] : mExchanges) {
        const bool heard = exchange.heard > exchange.begun;
        if (exchange.request.to == peer && exchange.request.method == code::GET && !heard) {
            exchange.hasty = true;
            exchange.nextCopy = now;
            exchange.end = std::min(exchange.end, now + LONGEST_GET_AFTER_SILENCE);
        }
    }
}

void RequestClient::Tick(TimePoint now) {
    // Sending may find the port refused and end exchanges at once, so none is held across it.
    std::vector<ConversationId> open;
    for (const auto& [conversation, exchange] : mExchanges) {
        open.push_back(conversation);
    }
    for (const ConversationId conversation : open) {
        const auto at = mExchanges.find(conversation);
        Exchange& exchange = at->second;
        if (now - exchange.heard >= SILENCE || now >= exchange.end) {
            EndUnanswered(at, now);
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
    for (const auto& [conversation, exchange] : mExchanges) {
        next = std::min({next, exchange.nextCopy, exchange.nextPing, exchange.heard + SILENCE, exchange.end});
    }
    return next;
}

void RequestClient::Close() {
    while (!mExchanges.empty()) {
        End(mExchanges.begin(), {});
    }
}

void RequestClient::BeginBody(ConversationId conversation, Exchange& exchange, TimePoint now) {
    exchange.secret = SecretFor(exchange.request.to);
    exchange.firstOfBody = mSequence + 1;
    exchange.block = 0;
    BeginMessage(conversation, exchange, now);
}

void RequestClient::BeginMessage(ConversationId conversation, Exchange& exchange, TimePoint now) {
    exchange.sequence = ++mSequence;
    exchange.message = Compose(exchange);
    exchange.begun = now;
    exchange.copies = 0;
    SendCopy(conversation, exchange, now);
}

CoapMessage RequestClient::Compose(const Exchange& exchange) {
    CoapMessage message;
    message.type = MessageType::Confirmable;
    message.code = exchange.request.method;
    message.messageId = mIdSource.NextMessageId();
    message.token = mIdSource.NextToken();
    AddKey(message, exchange.request.key);
    if (exchange.blocks.size() > 1) {
        const bool more = exchange.block + 1 < exchange.blocks.size();
        const Block block{static_cast<std::uint32_t>(exchange.block), more, BLOCK_EXPONENT};
        message.Add(option::BLOCK1, EncodeBlock(block));
    }
    if (!mLocalNode.deviceType && exchange.blocks.size() <= 1) {
        // A node that only looks asks as a foreign client does: no other node knows its id.
        message.payload = exchange.blocks.empty() ? std::string() : exchange.blocks.front();
        return message;
    }
    Requester requester;
    requester.identity = mLocalNode.identity;
    requester.port = mLocalNode.port;
    requester.sequence = exchange.sequence;
    requester.oldestOpen = OldestOpen();
    requester.firstOfBody = exchange.firstOfBody;
    requester.secret = exchange.secret;
    message.Add(option::REQUESTER, EncodeRequester(requester));
    message.payload = exchange.blocks.empty() ? std::string() : exchange.blocks[exchange.block];
    return message;
}

void RequestClient::SendCopy(ConversationId conversation, Exchange& exchange, TimePoint now) {
    const Milliseconds pause = PAUSES[std::min<std::size_t>(exchange.copies, PAUSES.size() - 1)];
    exchange.nextCopy = now + (exchange.hasty ? HASTY_PAUSE : pause);
    ++exchange.copies;
    mNetwork.Transmit(conversation, exchange.request.to, exchange.message);
}

void RequestClient::SendPing(ConversationId conversation, Exchange& exchange, TimePoint now) {
    exchange.nextPing = now + PING_INTERVAL;
    CoapMessage ping = MakePing();
    ping.token = exchange.pingToken;
    ping.messageId = mIdSource.NextMessageId();
    mNetwork.Transmit(conversation, exchange.request.to, ping);
}

std::uint32_t RequestClient::OldestOpen() const {
    std::uint32_t oldest = mSequence;
    for (const auto& [conversation, exchange] : mExchanges) {
        // Sequence numbers wrap; their distance does not.
        if (static_cast<std::int32_t>(exchange.sequence - oldest) < 0) {
            oldest = exchange.sequence;
        }
    }
    return oldest;
}

std::uint64_t RequestClient::SecretFor(const Endpoint& device) {
    const auto known = mSecrets.find(device);
    if (known != mSecrets.end()) {
        return known->second;
    }
    if (mSecrets.size() >= MAX_SECRETS) {
        mSecrets.erase(mSecrets.begin());  // the device takes the next one for that of another client
    }
    return mSecrets.emplace(device, mIdSource.NextSecret()).first->second;
}

// Another exchange may have replaced it already.
void RequestClient::ReplaceSecret(const Endpoint& device, std::uint64_t former) {
    const auto known = mSecrets.find(device);
    if (known != mSecrets.end() && known->second == former) {
        known->second = mIdSource.NextSecret();
    }
}

RequestClient::Exchanges::iterator RequestClient::End(Exchanges::iterator exchange, Outcome outcome) {
    mNetwork.CloseConversation(exchange->first);
    const std::uint64_t ticket = exchange->second.request.ticket;
    const auto next = mExchanges.erase(exchange);
    mApplication.RequestEnded(ticket, std::move(outcome));
    return next;
}

// With a key only its holders answer pings: a silent node is then no stranger's.
void RequestClient::EndUnanswered(Exchanges::iterator exchange, TimePoint now) {
    if (!mLocalNode.secured) {
        mUnanswered.Add(exchange->second.request.to, now);
    }
    End(exchange, {});
}

}  // namespace lumora_link
