#include "peer_directory.h"

#include <algorithm>

namespace lumora_link {

namespace {

// Bounds what a flood of invented nodes can cost.
constexpr std::size_t kMaxPeers = 4096;
constexpr std::size_t kMaxWays = 16;
constexpr std::size_t kMaxSuspects = 512;
// Among more nodes the work of asking would cost more answers than it saves time.
constexpr std::size_t kMostNeighbours = 64;
constexpr std::size_t kMaxGraves = 1024;
constexpr Milliseconds kGraveTime{10000};

bool WasHeardFrom(const Peer& peer, in_addr_t host) {
    return std::any_of(peer.ways.begin(), peer.ways.end(),
                       [host](const auto& way) { return way.first.host == host; });
}

}  // namespace

bool PeerDirectory::Hear(const NodeDescription& node, bool unicast, TimePoint now, Source source) {
    const bool believed = !secured_ || source == Source::kPing;
    if (node.identity.id == ownId_ || IsBuried(node.identity, now)) {
        return false;
    }
    auto known = peers_.find(node.identity.id);
    const bool restarted = known != peers_.end() && known->second.node.identity != node.identity;
    if (restarted && believed) {
        Bury(known->second.node.identity, now);
    }
    if (restarted || (known != peers_.end() && !Refresh(known->second, node, now))) {
        // It has moved to another address or offers something else: for others, a new device.
        if (!believed) {
            Suspect(node.identity.id, now);
            return false;
        }
        Remove(known);
        known = peers_.end();
    }
    if (known != peers_.end()) {
        known->second.unicast = known->second.unicast || unicast;
        return false;
    }
    if (peers_.size() >= kMaxPeers) {
        return false;
    }
    if (!believed && HasOwner(node.endpoint)) {
        SuspectAt(node.endpoint, now);
        return false;
    }
    RemoveFormerOwner(node.endpoint, node.identity.id);
    Add(node, unicast, now);
    return true;
}

// A node on several interfaces is heard under several addresses. It keeps the one under which it
// was seen first for as long as that one is alive, so that all who ask here name it alike.
bool PeerDirectory::Refresh(Peer& peer, const NodeDescription& node, TimePoint now) {
    if (peer.ways.size() < kMaxWays || peer.ways.count(node.endpoint) != 0) {
        peer.ways[node.endpoint] = now;
    }
    const bool sameWay = node.endpoint == peer.node.endpoint;
    const bool wayAlive = sameWay || now - peer.ways[peer.node.endpoint] < kDoubtAfter + kGiveUpAfter;
    if (!wayAlive || node.deviceType != peer.node.deviceType) {
        return false;
    }
    peer.heard = now;
    peer.doubtedSince.reset();
    peer.saidGoodbye = false;
    doubted_.erase(node.identity.id);
    suspects_.erase(node.identity.id);
    return true;
}

void PeerDirectory::Leave(const NodeIdentity& identity, in_addr_t source, TimePoint now) {
    const auto known = peers_.find(identity.id);
    if (known == peers_.end() || known->second.node.identity != identity) {
        return;
    }
    if (!WasHeardFrom(known->second, source)) {
        return;
    }
    if (secured_) {
        known->second.saidGoodbye = true;
        Suspect(identity.id, now);
    } else {
        Bury(identity, now);
        Remove(known);
    }
}

void PeerDirectory::Refuse(std::uint64_t nodeId, TimePoint now) {
    const auto known = peers_.find(nodeId);
    if (known == peers_.end()) {
        return;
    }
    // Else no grave: the same instance may live on under another address.
    if (known->second.saidGoodbye) {
        Bury(known->second.node.identity, now);
    }
    Remove(known);
}

void PeerDirectory::Suspect(std::uint64_t nodeId, TimePoint now) {
    if (peers_.count(nodeId) != 0 && suspects_.size() < kMaxSuspects) {
        suspects_[nodeId] = now + kSuspicion;
        CheckAt(now);
    }
}

void PeerDirectory::SuspectAt(const Endpoint& endpoint, TimePoint now) {
    for (const auto& [id, peer] : peers_) {
        if (peer.node.endpoint == endpoint) {
            Suspect(id, now);
        }
    }
}

// Looks at every node only when the earliest can be due: with many nodes, most calls come from
// their hellos.
void PeerDirectory::Tick(TimePoint now) {
    if (now < nextCheck_) {
        return;
    }
    nextCheck_ = TimePoint::max();
    DoubtSuspects(now);
    Announce(now);
    const Milliseconds doubtAfter = IsCrowd() ? kDoubtInCrowdAfter : kDoubtAfter;
    const Milliseconds giveUpAfter = IsCrowd() ? kGiveUpInCrowdAfter : kGiveUpAfter;
    for (auto at = peers_.begin(); at != peers_.end();) {
        Peer& peer = at->second;
        if (!peer.doubtedSince && now - peer.heard >= doubtAfter) {
            Doubt(peer, now);
        }
        // A suspect that merely does not answer gets as long as anybody.
        const TimePoint silent = peer.heard + doubtAfter;
        const TimePoint due = peer.doubtedSince ? std::max(*peer.doubtedSince, silent) + giveUpAfter : silent;
        if (due <= now) {
            // The link may only have been cut: no grave, the same instance may come back.
            at = Remove(at);
            continue;
        }
        CheckAt(due);
        ++at;
    }
}

void PeerDirectory::Doubt(Peer& peer, TimePoint now) {
    peer.doubtedSince = now;
    doubted_.insert(peer.node.identity.id);
}

void PeerDirectory::DoubtSuspects(TimePoint now) {
    for (auto at = suspects_.begin(); at != suspects_.end();) {
        at = at->second <= now ? suspects_.erase(at) : std::next(at);
    }
    if (now - askedSince_ >= kAskAgainAfter) {
        askedSince_ = now;
        asked_ = 0;
    }
    const std::size_t share = kAskedByAll / std::max<std::size_t>(peers_.size(), 1);
    const std::size_t most = std::clamp<std::size_t>(share, 1, kAskedAtOnce);
    Peer* suspect = LongestSilentSuspect();
    for (; suspect != nullptr && asked_ < most; suspect = LongestSilentSuspect()) {
        Doubt(*suspect, now);
        ++asked_;
    }
    if (suspect != nullptr) {
        CheckAt(askedSince_ + kAskAgainAfter);
    }
    for (const auto& [id, until] : suspects_) {
        CheckAt(until);
    }
}

// Of those who are not in doubt yet.
Peer* PeerDirectory::LongestSilentSuspect() {
    Peer* longest = nullptr;
    for (const auto& [id, until] : suspects_) {
        Peer& peer = peers_.at(id);
        if (!peer.doubtedSince && (longest == nullptr || peer.heard < longest->heard)) {
            longest = &peer;
        }
    }
    return longest;
}

void PeerDirectory::Announce(TimePoint now) {
    for (auto at = heldBack_.begin(); at != heldBack_.end();) {
        if (!suspects_.empty() && now < at->second) {
            CheckAt(at->second);
            ++at;
            continue;
        }
        const Peer& peer = peers_.at(at->first);
        events_.push_back({true, peer.number, peer.node});
        at = heldBack_.erase(at);
    }
}

const Peer* PeerDirectory::Find(std::uint64_t nodeId) const {
    const auto known = peers_.find(nodeId);
    return known == peers_.end() ? nullptr : &known->second;
}

std::vector<const Peer*> PeerDirectory::OfType(const std::string& deviceType) const {
    std::vector<const Peer*> found;
    for (const auto& [id, peer] : peers_) {
        if (peer.node.deviceType == deviceType) {
            found.push_back(&peer);
        }
    }
    return found;
}

std::vector<DeviceEvent> PeerDirectory::TakeEvents() {
    if (suspects_.empty()) {
        Announce(TimePoint::max());
    }
    std::vector<DeviceEvent> events;
    events.swap(events_);
    return events;
}

bool PeerDirectory::IsBuried(const NodeIdentity& identity, TimePoint now) {
    while (!graves_.empty() && graves_.front().until <= now) {
        graves_.pop_front();
    }
    return std::any_of(graves_.begin(), graves_.end(),
                       [&](const Grave& grave) { return grave.identity == identity; });
}

void PeerDirectory::Bury(const NodeIdentity& identity, TimePoint now) {
    if (graves_.size() >= kMaxGraves) {
        graves_.pop_front();
    }
    graves_.push_back({identity, now + kGraveTime});
}

void PeerDirectory::Add(const NodeDescription& node, bool unicast, TimePoint now) {
    Peer peer;
    peer.node = node;
    peer.number = ++lastNumber_;
    peer.heard = now;
    peer.unicast = unicast;
    peer.ways[node.endpoint] = now;
    CheckAt(now + kDoubtAfter);
    if (SuspectNeighbours(node, now)) {
        heldBack_[node.identity.id] = now + kHoldBack;
        CheckAt(now + kHoldBack);
    } else {
        events_.push_back({true, peer.number, node});
    }
    peers_.emplace(node.identity.id, std::move(peer));
}

bool PeerDirectory::SuspectNeighbours(const NodeDescription& newcomer, TimePoint now) {
    if (peers_.size() > kMostNeighbours) {
        return false;
    }
    bool any = false;
    for (const auto& [id, peer] : peers_) {
        if (WasHeardFrom(peer, newcomer.endpoint.host)) {
            Suspect(id, now);
            any = true;
        }
    }
    return any;
}

PeerDirectory::Peers_t::iterator PeerDirectory::Remove(Peers_t::iterator peer) {
    const bool announced = heldBack_.erase(peer->first) == 0;
    if (announced) {
        events_.push_back({false, peer->second.number, peer->second.node});
    }
    doubted_.erase(peer->first);
    suspects_.erase(peer->first);
    return peers_.erase(peer);
}

bool PeerDirectory::HasOwner(const Endpoint& endpoint) const {
    return std::any_of(peers_.begin(), peers_.end(),
                       [&](const auto& peer) { return peer.second.node.endpoint == endpoint; });
}

// Two nodes cannot listen at one endpoint: the earlier one has gone without a word.
void PeerDirectory::RemoveFormerOwner(const Endpoint& endpoint, std::uint64_t newOwner) {
    for (auto at = peers_.begin(); at != peers_.end();) {
        const bool former = at->second.node.endpoint == endpoint && at->first != newOwner;
        at = former ? Remove(at) : std::next(at);
    }
}

}  // namespace lumora_link
