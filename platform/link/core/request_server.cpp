#include "platform/link/core/request_server.h"

#include <algorithm>

namespace lumora_link {

namespace {

constexpr std::size_t MAX_BODIES = 64;
constexpr std::size_t MAX_BODIES_PER_SOURCE = 8;
constexpr Milliseconds BODY_TIME{10000};

// The codes that Assemble gives besides those of failures.
constexpr std::uint8_t WHOLE = code::CONTENT;

}  // namespace

RequestServer::RequestServer(const PeerDirectory& directory, Network& network, Application& application)
    : mDirectory(directory),
      mNetwork(network),
      mApplication(application),
      mBodyQuota("values in blocks", MAX_BODIES, MAX_BODIES_PER_SOURCE) {}

void RequestServer::OnRequest(const CoapMessage& request, const Endpoint& source, in_addr_t localHost,
                              ReplyPath path, TimePoint now, const std::string& identity) {
    const auto requester = DecodeRequester(request);
    const RequestKey key = KeyFor(request, requester, source);
    switch (mTable.Admit(key, requester, now)) {
        case RequestTable::Verdict::NEW: {
            HandlerCall call;
            call.method = request.code;
            call.requester = EndpointOf(requester, source);
            call.sameHost = source.host == localHost || LocalInterface::IsLoopback(source.host);
            call.key = KeyOf(request);
            call.identity = identity;
            call.node = {source.host, key.requester.node, key.requester.instance};
            Run(key, request, std::move(call), requester, path, now);
            break;
        }
        case RequestTable::Verdict::PENDING:
            Repeat(key, request, path);
            break;
        case RequestTable::Verdict::ANSWERED:
            Reply(path, request, false, mTable.StoredAnswer(key));
            break;
        case RequestTable::Verdict::FULL:
            Reply(path, request, false, {code::UNAVAILABLE, {}});
            break;
        case RequestTable::Verdict::STALE:
            // Not silence: a requester whose numbers another one has moved on begins anew with a new secret.
            Reply(path, request, false, {code::CONFLICT, {}});
            break;
    }
}

void RequestServer::Run(const RequestKey& key, const CoapMessage& request, HandlerCall call,
                        const std::optional<Requester>& requester, ReplyPath path, TimePoint now) {
    call.ticket = ++mLastTicket;
    Open& open = mOpen[call.ticket];
    open = {key, request, path, false, now + ACKNOWLEDGE_AFTER};
    open.request.payload.clear();

    const std::uint64_t ticket = call.ticket;
    const BodyKey body{key.requester, requester ? requester->firstOfBody : 0};
    std::uint8_t refusal = Assemble(request, body, call.value, now);
    if (call.key.size() > MAX_TEXT_BYTES) {
        refusal = code::BAD_REQUEST;
    } else if (call.value.size() > MAX_TEXT_BYTES) {
        refusal = code::TOO_LARGE;
    } else if (mClosed || (refusal == WHOLE && !mApplication.Handle(std::move(call)))) {
        refusal = code::UNAVAILABLE;
    }
    if (refusal != WHOLE) {
        OnHandled(ticket, {refusal, {}}, now);
    }
}

// Puts the blocks of a long value together; answers CONTINUE until the last one came.
std::uint8_t RequestServer::Assemble(const CoapMessage& request, const BodyKey& key, std::string& value,
                                     TimePoint now) {
    const auto block = FindBlock(request);
    if (!block || (block->number == 0 && !block->more)) {
        value = request.payload;
        return WHOLE;
    }
    if (!key.first.numbered) {
        return code::TOO_LARGE;
    }
    auto known = mBodies.find(key);
    if (known == mBodies.end()) {
        if (block->number != 0) {
            return code::INCOMPLETE;
        }
        MakeRoomForBody(key.first.host);
        known = mBodies.try_emplace(key).first;
        mBodyQuota.Enter(key.first.host);
    }
    Body& body = known->second;
    body.since = now;
    if (block->number != body.blocks || body.text.size() + request.payload.size() > MAX_TEXT_BYTES) {
        Erase(known);
        return code::INCOMPLETE;
    }
    body.text += request.payload;
    ++body.blocks;
    if (block->more) {
        return code::CONTINUE;
    }
    value = std::move(body.text);
    Erase(known);
    return WHOLE;
}

// Drops the body that has had no block for the longest time, of the address that has to yield.
void RequestServer::MakeRoomForBody(in_addr_t source) {
    while (const auto yields = mBodyQuota.WhoYields(source)) {
        mBodyQuota.OnBite(*yields);
        auto oldest = mBodies.end();
        for (auto at = mBodies.begin(); at != mBodies.end(); ++at) {
            const bool older = oldest == mBodies.end() || at->second.since < oldest->second.since;
            oldest = at->first.first.host == *yields && older ? at : oldest;
        }
        if (oldest == mBodies.end()) {
            return;
        }
        Erase(oldest);
    }
}

RequestServer::Bodies::iterator RequestServer::Erase(Bodies::iterator body) {
    mBodyQuota.Leave(body->first.first.host);
    return mBodies.erase(body);
}

void RequestServer::OnHandled(std::uint64_t ticket, const Outcome& outcome, TimePoint now) {
    const auto at = mOpen.find(ticket);
    if (at == mOpen.end()) {
        return;
    }
    const Open open = std::move(at->second);
    mOpen.erase(at);
    mTable.Answer(open.key, outcome, now);
    Reply(open.path, open.request, open.acknowledged, outcome);
}

// The same request came again while its handler runs. The later way back is the fresher one.
void RequestServer::Repeat(const RequestKey& key, const CoapMessage& request, ReplyPath path) {
    for (auto& [ticket, open] : mOpen) {
        if (open.key < key || key < open.key) {
            continue;
        }
        mNetwork.Forget(open.path);
        open.path = path;
        if (request.type == MessageType::Confirmable) {
            Acknowledge(open);
        }
        return;
    }
    mNetwork.Forget(path);
}

void RequestServer::Close(TimePoint now) {
    mClosed = true;
    while (!mOpen.empty()) {
        OnHandled(mOpen.begin()->first, {code::UNAVAILABLE, {}}, now);
    }
}

void RequestServer::Tick(TimePoint now) {
    for (auto& [ticket, open] : mOpen) {
        if (!open.acknowledged && now >= open.acknowledgeAt) {
            Acknowledge(open);
        }
    }
    for (auto at = mBodies.begin(); at != mBodies.end();) {
        at = now - at->second.since >= BODY_TIME ? Erase(at) : std::next(at);
    }
}

TimePoint RequestServer::NextDeadline() const {
    TimePoint next = TimePoint::max();
    for (const auto& [ticket, open] : mOpen) {
        if (!open.acknowledged) {
            next = std::min(next, open.acknowledgeAt);
        }
    }
    for (const auto& [key, body] : mBodies) {
        next = std::min(next, body.since + BODY_TIME);
    }
    return next;
}

void RequestServer::Acknowledge(Open& open) {
    open.acknowledged = true;
    if (open.request.type == MessageType::Confirmable) {
        CoapMessage empty;
        empty.type = MessageType::Acknowledgement;
        empty.messageId = open.request.messageId;
        mNetwork.Reply(open.path, empty);
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
    mNetwork.Reply(path, reply);
    mNetwork.Forget(path);
}

// The port is the asking node's own, not this datagram's. The host is always the datagram's: handlers connect
// to this endpoint, and the id in a request proves nothing, so another node's host must not be had by naming
// its id.
Endpoint RequestServer::EndpointOf(const std::optional<Requester>& requester, const Endpoint& source) const {
    if (!requester) {
        return source;
    }
    const Peer* peer = mDirectory.Find(requester->identity.id);
    if (peer != nullptr && peer->node.identity == requester->identity &&
        peer->node.endpoint.host == source.host) {
        return peer->node.endpoint;
    }
    return {source.host, requester->port};
}

}  // namespace lumora_link
