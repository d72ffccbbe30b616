#include "request_server.h"

#include <algorithm>

namespace lumora_link {

namespace {

constexpr std::size_t kMaxBodies = 64;
constexpr Milliseconds kBodyTime{10000};

// The codes that Assemble gives besides those of failures.
constexpr std::uint8_t kWhole = code::kContent;

}  // namespace

RequestServer::RequestServer(const PeerDirectory& directory, Network& network, Application& application)
    : directory_(directory), network_(network), application_(application) {}

void RequestServer::OnRequest(const CoapMessage& request, const Endpoint& source, ReplyPath path,
                              TimePoint now) {
    const auto requester = DecodeRequester(request);
    const RequestKey key = KeyFor(request, requester, source);
    switch (table_.Admit(key, requester, now)) {
        case RequestTable::Verdict::kNew:
            Run(key, request, requester, source, path, now);
            break;
        case RequestTable::Verdict::kPending:
            Repeat(key, request, path);
            break;
        case RequestTable::Verdict::kAnswered:
            Reply(path, request, false, table_.StoredAnswer(key));
            break;
        case RequestTable::Verdict::kFull:
            Reply(path, request, false, {code::kUnavailable, {}});
            break;
        case RequestTable::Verdict::kStale:
            network_.Forget(path);
            break;
    }
}

void RequestServer::Run(const RequestKey& key, const CoapMessage& request,
                        const std::optional<Requester>& requester, const Endpoint& source, ReplyPath path,
                        TimePoint now) {
    HandlerCall call;
    call.ticket = ++lastTicket_;
    call.method = request.code;
    call.requester = EndpointOf(requester, source);
    call.key = KeyOf(request);

    Open& open = open_[call.ticket];
    open = {key, request, path, false, now + kAcknowledgeAfter};
    open.request.payload.clear();

    const std::uint64_t ticket = call.ticket;
    std::uint8_t refusal = Assemble(request, requester, call.value, now);
    if (call.key.size() > kMaxTextBytes) {
        refusal = code::kBadRequest;
    } else if (call.value.size() > kMaxTextBytes) {
        refusal = code::kTooLarge;
    } else if (closed_ || (refusal == kWhole && !application_.Handle(std::move(call)))) {
        refusal = code::kUnavailable;
    }
    if (refusal != kWhole) {
        OnHandled(ticket, {refusal, {}}, now);
    }
}

// Puts the blocks of a long value together; answers kContinue until the last one came.
std::uint8_t RequestServer::Assemble(const CoapMessage& request, const std::optional<Requester>& requester,
                                     std::string& value, TimePoint now) {
    const auto block = FindBlock(request);
    if (!block || (block->number == 0 && !block->more)) {
        value = request.payload;
        return kWhole;
    }
    if (!requester) {
        return code::kTooLarge;
    }
    const BodyKey key(requester->identity.id, requester->identity.instance, requester->firstOfBody);
    if (bodies_.count(key) == 0 && (block->number != 0 || bodies_.size() >= kMaxBodies)) {
        return block->number != 0 ? code::kIncomplete : code::kUnavailable;
    }
    Body& body = bodies_[key];
    body.since = now;
    if (block->number != body.blocks || body.text.size() + request.payload.size() > kMaxTextBytes) {
        bodies_.erase(key);
        return code::kIncomplete;
    }
    body.text += request.payload;
    ++body.blocks;
    if (block->more) {
        return code::kContinue;
    }
    value = std::move(body.text);
    bodies_.erase(key);
    return kWhole;
}

void RequestServer::OnHandled(std::uint64_t ticket, const Outcome& outcome, TimePoint now) {
    const auto at = open_.find(ticket);
    if (at == open_.end()) {
        return;
    }
    const Open open = std::move(at->second);
    open_.erase(at);
    table_.Answer(open.key, outcome, now);
    Reply(open.path, open.request, open.acknowledged, outcome);
}

// The same request came again while its handler runs. The later way back is the fresher one.
void RequestServer::Repeat(const RequestKey& key, const CoapMessage& request, ReplyPath path) {
    for (auto& [ticket, open] : open_) {
        if (open.key < key || key < open.key) {
            continue;
        }
        network_.Forget(open.path);
        open.path = path;
        if (request.type == MessageType::Confirmable) {
            Acknowledge(open);
        }
        return;
    }
    network_.Forget(path);
}

void RequestServer::Close(TimePoint now) {
    closed_ = true;
    while (!open_.empty()) {
        OnHandled(open_.begin()->first, {code::kUnavailable, {}}, now);
    }
}

void RequestServer::Tick(TimePoint now) {
    for (auto& [ticket, open] : open_) {
        if (!open.acknowledged && now >= open.acknowledgeAt) {
            Acknowledge(open);
        }
    }
    for (auto at = bodies_.begin(); at != bodies_.end();) {
        at = now - at->second.since >= kBodyTime ? bodies_.erase(at) : std::next(at);
    }
}

TimePoint RequestServer::NextDeadline() const {
    TimePoint next = TimePoint::max();
    for (const auto& [ticket, open] : open_) {
        if (!open.acknowledged) {
            next = std::min(next, open.acknowledgeAt);
        }
    }
    for (const auto& [key, body] : bodies_) {
        next = std::min(next, body.since + kBodyTime);
    }
    return next;
}

void RequestServer::Acknowledge(Open& open) {
    open.acknowledged = true;
    if (open.request.type == MessageType::Confirmable) {
        CoapMessage empty;
        empty.type = MessageType::Acknowledgement;
        empty.messageId = open.request.messageId;
        network_.Reply(open.path, empty);
    }
}

void RequestServer::Reply(ReplyPath path, const CoapMessage& request, bool separate, const Outcome& outcome) {
    CoapMessage reply;
    const bool confirmable = request.type == MessageType::Confirmable;
    if (confirmable) {
        reply.type = separate ? MessageType::Confirmable : MessageType::Acknowledgement;
    }
    reply.code = outcome.code;
    reply.messageId = request.messageId;
    reply.token = request.token;
    reply.payload = outcome.payload;
    network_.Reply(path, reply);
    network_.Forget(path);
}

// The endpoint under which events and searches name the requester, not this datagram's source.
Endpoint RequestServer::EndpointOf(const std::optional<Requester>& requester, const Endpoint& source) const {
    if (!requester) {
        return source;
    }
    const Peer* peer = directory_.Find(requester->identity.id);
    if (peer != nullptr && peer->node.identity == requester->identity) {
        return peer->node.endpoint;
    }
    return {source.host, requester->port};
}

}  // namespace lumora_link
