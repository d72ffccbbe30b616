#include "platform/link/core/presence.h"

#include <algorithm>
#include <utility>

#include "platform/link/wire/link_format.h"

namespace lumora_link {

namespace {

constexpr Milliseconds NEWCOMER_JITTER{50};
constexpr Milliseconds NEWCOMER_JITTER_PER_NODE{2};
constexpr std::size_t MAX_TEXTS = 2048;
constexpr std::size_t MAX_UNICAST_TARGETS = 256;

}  // namespace

Presence::Presence(const LocalNode& localNode, IdSource& idSource, Network& network,
                   std::vector<Endpoint> peers)
    : mLocalNode(localNode),
      mIdSource(idSource),
      mNetwork(network),
      mConfigured(std::move(peers)),
      mDirectory(localNode.identity.id),
      mTextQuota("hellos", MAX_TEXTS, MAX_TEXTS),
      mTrials(localNode, idSource, network) {}

// All nodes that heard the newcomer do this at the same moment, and their later hellos keep the distance that
// they get here. So more nodes share a longer time.
void Presence::HelloSoon(TimePoint now) {
    const Milliseconds shared =
        std::clamp(mDirectory.ForAll(NEWCOMER_JITTER_PER_NODE), NEWCOMER_JITTER, HELLO_INTERVAL_IN_CROWD);
    const TimePoint earliest = std::max(now, mLastHello + SHORTEST_INTERVAL);
    mNextHello = std::min(mNextHello, earliest + mIdSource.Jitter(shared));
    mInStep = true;
}

bool Presence::IsChosen() const {
    const std::size_t nodes = mDirectory.Peers().size();
    const Milliseconds chance = mIdSource.Jitter(Milliseconds(nodes));
    return nodes <= 2 * GREETERS || chance < Milliseconds(GREETERS);
}

// All nodes hear the newcomer and each other. A few nodes all say hello, so that the newcomer knows them at
// once.
void Presence::Greet(TimePoint now) {
    if (IsChosen()) {
        HelloSoon(now);
    }
}

void Presence::OnNotice(const CoapMessage& notice, const Endpoint& source, bool unicast, TimePoint now) {
    const bool goodbye = PathOf(notice) == GOODBYE_PATH;
    const NodeDescription* node = Read(notice.payload, source);
    if (node == nullptr) {
        return;
    }
    if (goodbye) {
        mDirectory.OnGoodbye(node->identity, source.host, now);
    } else {
        OnHello(*node, unicast, now);
        if (node->identity.id != mLocalNode.identity.id) {
            SayHelloTogether(now);
        }
    }
}

// The thread is awake for that hello anyway. Many nodes must not speak at the same moment.
void Presence::SayHelloTogether(TimePoint now) {
    if (!mDirectory.IsCrowd() && now < mNextHello && mNextHello - now <= HELLO_TOGETHER &&
        now - mLastHello >= SHORTEST_INTERVAL) {
        mNextHello = now;
        mInStep = true;
        mFollowed = true;
    }
}

// A node sends the same hello over and over from the same socket; it is taken apart once.
const NodeDescription* Presence::Read(const std::string& link, const Endpoint& source) {
    Text& text = TextFrom(source);
    if (text.link != link) {
        text.link = link;
        text.node = ParseLink(link);
        if (text.node) {
            // The address that reaches the node is the one that its datagrams come from.
            text.node->endpoint.host = source.host;
        }
    }
    return text.node ? &*text.node : nullptr;
}

Presence::Text& Presence::TextFrom(const Endpoint& source) {
    const auto known = mTexts.find(source);
    if (known != mTexts.end()) {
        return known->second;
    }
    if (const auto yields = mTextQuota.WhoYields(source.host)) {
        mTextQuota.OnBite(*yields);
        ForgetOldestText(*yields);
    }
    Text& text = mTexts[source];
    text.place = mOldestTexts.Add(source.host, source);
    mTextQuota.Enter(source.host);
    return text;
}

void Presence::ForgetOldestText(in_addr_t host) {
    const auto text = mTexts.find(*mOldestTexts.Oldest(host));
    mOldestTexts.Remove(host, text->second.place);
    mTextQuota.Leave(host);
    mTexts.erase(text);
}

void Presence::OnHello(const NodeDescription& node, bool unicast, TimePoint now) {
    if (node.secured != mLocalNode.secured) {
        return;
    }
    if (mDirectory.OnHello(node, unicast, now)) {
        Greet(now);
    } else if (mDirectory.IsClaim(node)) {
        mTrials.Propose(node);
    }
}

bool Presence::OnAnswer(ConversationId conversation, const CoapMessage& answer, TimePoint now) {
    std::optional<NodeDescription> proven;
    if (mTrials.OnAnswer(conversation, answer, proven)) {
        if (proven) {
            mDirectory.OnProven(*proven, now);
        }
        return true;
    }
    const auto pinged = mPinged.find(conversation);
    if (pinged == mPinged.end()) {
        return false;
    }
    const auto node = ParseLink(answer.payload);
    const bool valid = PingedBy(conversation) != nullptr && node && node->secured == mLocalNode.secured &&
                       answer.token == mPings.at(pinged->second).token;
    if (valid && mDirectory.OnPong(pinged->second, *node, now)) {
        Greet(now);
    }
    return true;
}

bool Presence::OnRefused(ConversationId conversation, TimePoint now) {
    if (mTrials.OnRefused(conversation)) {
        return true;
    }
    const auto pinged = mPinged.find(conversation);
    if (pinged == mPinged.end()) {
        return false;
    }
    if (PingedBy(conversation) != nullptr) {
        mDirectory.OnPortUnreachable(pinged->second, now);
    }
    return true;
}

// Null if the node has moved since. An answer from its former endpoint proves nothing about it.
const Peer* Presence::PingedBy(ConversationId conversation) const {
    const auto pinged = mPinged.find(conversation);
    const Peer* peer = pinged == mPinged.end() ? nullptr : mDirectory.Find(pinged->second);
    return peer != nullptr && peer->node.endpoint == mPings.at(pinged->second).to ? peer : nullptr;
}

void Presence::Tick(TimePoint now) {
    if (now >= mNextHello) {
        Tell(HELLO_PATH);
        mLastHello = now;
        // A node without a resource says nothing, so it need not wake up.
        mNextHello = mLocalNode.deviceType ? now + PauseAfterHello() : TimePoint::max();
    }
    mDirectory.Tick(now);
    PingDoubted(now);
    PingClaims(now);
}

// Many nodes that said hello at nearly the same moment, to a newcomer or when they were few, are spread by a
// random pause.
Milliseconds Presence::PauseAfterHello() {
    const bool followed = std::exchange(mFollowed, false);
    if (!mDirectory.IsCrowd()) {
        return followed ? HELLO_INTERVAL - TURN : HELLO_INTERVAL;
    }
    const bool inStep = std::exchange(mInStep, false);
    return HELLO_INTERVAL_IN_CROWD -
           mIdSource.Jitter(inStep ? HELLO_INTERVAL_IN_CROWD - SHORTEST_INTERVAL : Milliseconds(0));
}

TimePoint Presence::NextDeadline() const {
    TimePoint next = std::min({mNextHello, mDirectory.NextDeadline(), mMorePings, mTrials.NextDeadline()});
    for (const auto& [nodeId, ping] : mPings) {
        next = std::min(next, ping.next);
    }
    return next;
}

void Presence::SayGoodbye() {
    // Twice, because the datagram may be lost and is not repeated.
    Tell(GOODBYE_PATH);
    Tell(GOODBYE_PATH);
}

std::vector<Endpoint> Presence::UnicastTargets() const {
    std::vector<Endpoint> targets = mConfigured;
    for (const auto& [id, peer] : mDirectory.Peers()) {
        if (!peer.unicast || !peer.confirmed || targets.size() >= MAX_UNICAST_TARGETS) {
            continue;
        }
        const bool listed = std::find(targets.begin(), targets.end(), peer.node.endpoint) != targets.end();
        if (!listed) {
            targets.push_back(peer.node.endpoint);
        }
    }
    return targets;
}

// A node without a resource only looks. Others that do not know it cannot take its end for the end of another
// application on its host.
void Presence::Tell(const char* path) {
    if (!mLocalNode.deviceType) {
        return;
    }
    const std::vector<Endpoint> targets = UnicastTargets();
    for (const LocalInterface& local : mLocalNode.interfaces) {
        CoapMessage notice = MakeNotice(path, FormatLink(mLocalNode.DescribedAt(local.host)));
        notice.messageId = mIdSource.NextMessageId();
        mNetwork.Send(local, MulticastGroup(), notice);
        for (const Endpoint& target : targets) {
            if (local.Reaches(target)) {
                mNetwork.Send(local, target, notice);
            }
        }
    }
}

void Presence::PingDoubted(TimePoint now) {
    const std::vector<std::uint64_t> doubted = mDirectory.Doubted(MAX_PINGS);
    // The network closes the sockets of the ended pings only after this turn, so they count until then.
    const std::size_t closing = EndOtherPings(doubted);
    mMorePings = TimePoint::max();
    for (const std::uint64_t nodeId : doubted) {
        if (mPings.count(nodeId) == 0 && mPings.size() + closing >= MAX_PINGS) {
            mMorePings = now;
            continue;
        }
        const auto [at, isNew] = mPings.try_emplace(nodeId);
        Ping& ping = at->second;
        if (isNew) {
            ping = {mIdSource.NextConversation(), mIdSource.NextToken(),
                    mDirectory.Find(nodeId)->node.endpoint, now};
            mPinged[ping.conversation] = nodeId;
        }
        if (now >= ping.next) {
            Send(ping, *mDirectory.Find(nodeId), now);
        }
    }
}

void Presence::PingClaims(TimePoint now) {
    mTrials.Tick(now, [this, now](ConversationId conversation, const Endpoint& to, const CoapMessage& ping) {
        if (MayPing(to.host, now)) {
            mNetwork.Transmit(conversation, to, ping);
            OnSentTo(to.host, ping);
        }
    });
}

// How many have ended.
std::size_t Presence::EndOtherPings(const std::vector<std::uint64_t>& doubted) {
    const std::size_t before = mPings.size();
    for (auto at = mPings.begin(); at != mPings.end();) {
        const bool goesOn = std::find(doubted.begin(), doubted.end(), at->first) != doubted.end() &&
                            PingedBy(at->second.conversation) != nullptr;
        if (!goesOn) {
            mNetwork.CloseConversation(at->second.conversation);
            mPinged.erase(at->second.conversation);
        }
        at = goesOn ? std::next(at) : mPings.erase(at);
    }
    return before - mPings.size();
}

bool Presence::IsTrusted(in_addr_t host) const {
    return mLocalNode.IsOwn(host) || mDirectory.IsConfirmed(host);
}

// What goes to addresses without a host stays in the socket. A stranger that names many of them would fill
// it.
bool Presence::MaySendTo(in_addr_t host, TimePoint now) {
    if (IsTrusted(host)) {
        return true;
    }
    const bool isClogged = mNetwork.IsClogged();
    if (isClogged || mBudget.RunsShort(host, now)) {
        // A client that asks much is asked in turn. Its answer lifts the limit before it is reached.
        mDirectory.AskAt(host, now);
    }
    return !isClogged && mBudget.Permits(host, now);
}

bool Presence::MayPing(in_addr_t host, TimePoint now) {
    return IsTrusted(host) || mBudget.Permits(host, now);
}

void Presence::OnSentTo(in_addr_t host, const CoapMessage& message) {
    if (!IsTrusted(host)) {
        mBudget.Charge(host, SerializeMessage(message).size());
    }
}

// A goodbye leaves a few milliseconds before the port is closed, so the first ping may still reach the port.
// A removal that waited for the regular second ping would come late:
//   device   hears the goodbye of a client, and its ping gets no answer
//   client   starts again on the same host, and opens a channel within 25 ms
//   device   tells the removal of the first one, which ends the channel of that address
// So the pauses begin short and double.
Milliseconds Presence::PauseAfterPing(const Peer& peer, TimePoint now) {
    if (peer.saidGoodbye) {
        const auto since = std::chrono::duration_cast<Milliseconds>(now - *peer.saidGoodbye);
        return std::clamp(since, SHORTEST_PING_INTERVAL, PING_INTERVAL);
    }
    return peer.IsEstablished() ? PING_INTERVAL : PING_INTERVAL_HEARD_ONCE;
}

void Presence::Send(Ping& ping, const Peer& peer, TimePoint now) {
    ping.next = now + PauseAfterPing(peer, now);
    if (!MayPing(peer.node.endpoint.host, now)) {
        return;
    }
    CoapMessage message = MakePing();
    message.token = ping.token;
    message.messageId = mIdSource.NextMessageId();
    mNetwork.Transmit(ping.conversation, peer.node.endpoint, message);
    OnSentTo(peer.node.endpoint.host, message);
    mDirectory.OnPinged(peer.node.identity.id, now);
}

}  // namespace lumora_link
