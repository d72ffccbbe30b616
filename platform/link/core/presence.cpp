#include "platform/link/core/presence.h"

#include <algorithm>

#include "platform/link/wire/link_format.h"

namespace lumora_link {

namespace {

constexpr Milliseconds NEWCOMER_JITTER{50};
constexpr Milliseconds NEWCOMER_JITTER_PER_NODE{2};
constexpr std::size_t MAX_TEXTS = 2048;

}  // namespace

Presence::Presence(const Self& self, Labels& labels, Network& network, std::vector<Endpoint> peers)
    : mSelf(self),
      mLabels(labels),
      mNetwork(network),
      mConfigured(std::move(peers)),
      mDirectory(self.identity.id, self.secured) {}

// All who heard the newcomer do this at the same moment, and keep the distance that they get here: the more
// they are, the longer the time that they share.
void Presence::HelloSoon(TimePoint now) {
    const Milliseconds shared =
        std::clamp(mDirectory.ForAll(NEWCOMER_JITTER_PER_NODE), NEWCOMER_JITTER, HELLO_INTERVAL);
    const TimePoint earliest = std::max(now, mLastHello + SHORTEST_INTERVAL);
    mNextHello = std::min(mNextHello, earliest + mLabels.Jitter(shared));
}

void Presence::OnNotice(const CoapMessage& notice, const Endpoint& source, bool unicast, TimePoint now) {
    const bool goodbye = PathOf(notice) == GOODBYE_PATH;
    const NodeDescription* node = Read(notice.payload, source);
    if (node == nullptr) {
        return;
    }
    if (goodbye) {
        mDirectory.Leave(node->identity, source.host, now);
    } else {
        Hear(*node, unicast, now);
    }
}

// A node sends the same hello over and over from the same socket; it is taken apart once.
const NodeDescription* Presence::Read(const std::string& link, const Endpoint& source) {
    if (mTexts.size() >= MAX_TEXTS) {
        mTexts.clear();
    }
    const auto [at, isNew] = mTexts.try_emplace(source);
    Text& text = at->second;
    if (isNew || text.link != link) {
        text.link = link;
        text.node = ParseLink(link);
        if (text.node) {
            // The address that reaches the node is the one that its datagrams come from.
            text.node->endpoint.host = source.host;
        }
    }
    return text.node ? &*text.node : nullptr;
}

void Presence::Hear(const NodeDescription& node, bool unicast, TimePoint now) {
    if (node.secured == mSelf.secured && mDirectory.Hear(node, unicast, now)) {
        HelloSoon(now);
    }
}

bool Presence::OnAnswer(ConversationId conversation, const CoapMessage& answer, TimePoint now) {
    const auto ping = PingOf(conversation);
    if (ping == mPings.end()) {
        return false;
    }
    const Peer* peer = mDirectory.Find(ping->first);
    auto node = ParseLink(answer.payload);
    if (peer != nullptr && node && answer.token == ping->second.token && node->secured == mSelf.secured) {
        node->endpoint.host = peer->node.endpoint.host;
        if (mDirectory.Hear(*node, peer->unicast, now, PeerDirectory::Source::PING)) {
            HelloSoon(now);
        }
    }
    return true;
}

bool Presence::OnRefused(ConversationId conversation, TimePoint now) {
    const auto ping = PingOf(conversation);
    if (ping == mPings.end()) {
        return false;
    }
    mDirectory.Refuse(ping->first, now);
    return true;
}

Presence::Pings::const_iterator Presence::PingOf(ConversationId conversation) const {
    return std::find_if(mPings.begin(), mPings.end(), [conversation](const auto& ping) {
        return ping.second.conversation == conversation;
    });
}

void Presence::Tick(TimePoint now) {
    if (now >= mNextHello) {
        Tell(HELLO_PATH);
        mLastHello = now;
        mNextHello = now + HELLO_INTERVAL;
    }
    mDirectory.Tick(now);
    PingDoubted(now);
}

TimePoint Presence::NextDeadline() const {
    TimePoint next = std::min(mNextHello, mDirectory.NextDeadline());
    for (const auto& [nodeId, ping] : mPings) {
        next = std::min(next, ping.next);
    }
    return next;
}

void Presence::SayGoodbye() {
    // Twice, because nobody repeats it later.
    Tell(GOODBYE_PATH);
    Tell(GOODBYE_PATH);
}

std::vector<Endpoint> Presence::UnicastTargets() const {
    std::vector<Endpoint> targets = mConfigured;
    for (const auto& [id, peer] : mDirectory.Peers()) {
        const bool listed = std::find(targets.begin(), targets.end(), peer.node.endpoint) != targets.end();
        if (peer.unicast && !listed) {
            targets.push_back(peer.node.endpoint);
        }
    }
    return targets;
}

void Presence::Tell(const char* path) {
    const std::vector<Endpoint> targets = UnicastTargets();
    for (const LocalInterface& local : mSelf.interfaces) {
        CoapMessage notice = MakeNotice(path, FormatLink(mSelf.DescribedAt(local.host)));
        notice.messageId = mLabels.NextMessageId();
        mNetwork.Send(local, MulticastGroup(), notice);
        for (const Endpoint& target : targets) {
            if (local.Reaches(target)) {
                mNetwork.Send(local, target, notice);
            }
        }
    }
}

void Presence::PingDoubted(TimePoint now) {
    for (auto at = mPings.begin(); at != mPings.end();) {
        const Peer* peer = mDirectory.Find(at->first);
        const bool settled = peer == nullptr || !peer->doubtedSince;
        if (settled) {
            mNetwork.Hang(at->second.conversation);
        }
        at = settled ? mPings.erase(at) : std::next(at);
    }
    for (const std::uint64_t nodeId : mDirectory.Doubted()) {
        const auto [at, isNew] = mPings.try_emplace(nodeId);
        Ping& ping = at->second;
        if (isNew) {
            ping = {mLabels.NextConversation(), mLabels.NextToken(), now};
        }
        if (now >= ping.next) {
            Send(ping, mDirectory.Find(nodeId)->node.endpoint, now);
        }
    }
}

void Presence::Send(Ping& ping, const Endpoint& to, TimePoint now) {
    CoapMessage message = MakePing();
    message.token = ping.token;
    message.messageId = mLabels.NextMessageId();
    mNetwork.Transmit(ping.conversation, to, message);
    ping.next = now + PING_INTERVAL;
}

}  // namespace lumora_link
