#include "presence.h"

#include <algorithm>

#include "link_format.h"

namespace lumora_link {

namespace {

constexpr Milliseconds kNewcomerJitter{50};
constexpr Milliseconds kNewcomerJitterPerNode{2};
constexpr std::size_t kMaxTexts = 2048;

}  // namespace

Presence::Presence(const Self& self, Labels& labels, Network& network, std::vector<Endpoint> peers)
    : self_(self),
      labels_(labels),
      network_(network),
      configured_(std::move(peers)),
      directory_(self.identity.id, self.secured) {}

// All who heard the newcomer do this at the same moment, and keep the distance that they get here: the more
// they are, the longer the time that they share.
void Presence::HelloSoon(TimePoint now) {
    const auto nodes = static_cast<Milliseconds::rep>(directory_.Peers().size());
    const Milliseconds shared = std::max(kNewcomerJitter, kNewcomerJitterPerNode * nodes);
    const TimePoint earliest = std::max(now, lastHello_ + kShortestInterval);
    const TimePoint soon = earliest + labels_.Jitter(std::min(shared, kHelloInterval));
    nextHello_ = std::min(nextHello_, soon);
}

void Presence::OnNotice(const CoapMessage& notice, const Endpoint& source, bool unicast, TimePoint now) {
    const bool goodbye = PathOf(notice) == kGoodbyePath;
    const NodeDescription* node = Read(notice.payload, source);
    if (node == nullptr) {
        return;
    }
    if (goodbye) {
        directory_.Leave(node->identity, source.host, now);
    } else {
        Hear(*node, unicast, now);
    }
}

// A node sends the same hello over and over from the same socket; it is taken apart once.
const NodeDescription* Presence::Read(const std::string& link, const Endpoint& source) {
    if (texts_.size() >= kMaxTexts) {
        texts_.clear();
    }
    const auto [at, isNew] = texts_.try_emplace(source);
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
    if (node.secured == self_.secured && directory_.Hear(node, unicast, now)) {
        HelloSoon(now);
    }
}

bool Presence::OnAnswer(ConversationId conversation, const CoapMessage& answer, TimePoint now) {
    const auto ping = PingOf(conversation);
    if (ping == pings_.end()) {
        return false;
    }
    const Peer* peer = directory_.Find(ping->first);
    auto node = ParseLink(answer.payload);
    if (peer != nullptr && node && answer.token == ping->second.token && node->secured == self_.secured) {
        node->endpoint.host = peer->node.endpoint.host;
        if (directory_.Hear(*node, peer->unicast, now, PeerDirectory::Source::kPing)) {
            HelloSoon(now);
        }
    }
    return true;
}

bool Presence::OnRefused(ConversationId conversation, TimePoint now) {
    const auto ping = PingOf(conversation);
    if (ping == pings_.end()) {
        return false;
    }
    directory_.Refuse(ping->first, now);
    return true;
}

Presence::Pings::const_iterator Presence::PingOf(ConversationId conversation) const {
    return std::find_if(pings_.begin(), pings_.end(), [conversation](const auto& ping) {
        return ping.second.conversation == conversation;
    });
}

void Presence::Tick(TimePoint now) {
    if (now >= nextHello_) {
        Tell(kHelloPath);
        lastHello_ = now;
        nextHello_ = now + kHelloInterval;
    }
    directory_.Tick(now);
    PingDoubted(now);
}

TimePoint Presence::NextDeadline() const {
    TimePoint next = std::min(nextHello_, directory_.NextDeadline());
    for (const auto& [nodeId, ping] : pings_) {
        next = std::min(next, ping.next);
    }
    return next;
}

void Presence::SayGoodbye() {
    // Twice, because nobody repeats it later.
    Tell(kGoodbyePath);
    Tell(kGoodbyePath);
}

std::vector<Endpoint> Presence::UnicastTargets() const {
    std::vector<Endpoint> targets = configured_;
    for (const auto& [id, peer] : directory_.Peers()) {
        const bool listed = std::find(targets.begin(), targets.end(), peer.node.endpoint) != targets.end();
        if (peer.unicast && !listed) {
            targets.push_back(peer.node.endpoint);
        }
    }
    return targets;
}

void Presence::Tell(const char* path) {
    const std::vector<Endpoint> targets = UnicastTargets();
    for (const LocalInterface& local : self_.interfaces) {
        CoapMessage notice = MakeNotice(path, FormatLink(self_.DescribedAt(local.host)));
        notice.messageId = labels_.NextMessageId();
        network_.Send(local, MulticastGroup(), notice);
        for (const Endpoint& target : targets) {
            if (local.Reaches(target)) {
                network_.Send(local, target, notice);
            }
        }
    }
}

void Presence::PingDoubted(TimePoint now) {
    for (auto at = pings_.begin(); at != pings_.end();) {
        const Peer* peer = directory_.Find(at->first);
        const bool settled = peer == nullptr || !peer->doubtedSince;
        if (settled) {
            network_.Hang(at->second.conversation);
        }
        at = settled ? pings_.erase(at) : std::next(at);
    }
    for (const std::uint64_t nodeId : directory_.Doubted()) {
        const auto [at, isNew] = pings_.try_emplace(nodeId);
        Ping& ping = at->second;
        if (isNew) {
            ping = {labels_.NextConversation(), labels_.NextToken(), now};
        }
        if (now >= ping.next) {
            Send(ping, directory_.Find(nodeId)->node.endpoint, now);
        }
    }
}

void Presence::Send(Ping& ping, const Endpoint& to, TimePoint now) {
    CoapMessage message = MakePing();
    message.token = ping.token;
    message.messageId = labels_.NextMessageId();
    network_.Transmit(ping.conversation, to, message);
    ping.next = now + kPingInterval;
}

}  // namespace lumora_link
