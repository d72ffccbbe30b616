#include "platform/link/core/peer_directory.h"

#include <algorithm>

namespace lumora_link {

namespace {

// Bounds what a flood of invented nodes can cost.
constexpr std::size_t MAX_PEERS = 4096;
constexpr std::size_t MAX_WAYS = 16;
constexpr std::size_t MAX_SUSPECTS = 512;
// Among more nodes the work of asking would cost more answers than it saves time.
constexpr std::size_t MOST_NEIGHBOURS = 64;
constexpr std::size_t MAX_GRAVES = 1024;
constexpr Milliseconds GRAVE_TIME{10000};

bool WasHeardFrom(const Peer& peer, in_addr_t host) {
    return std::any_of(peer.ways.begin(), peer.ways.end(),
                       [host](const auto& way) { return way.first.host == host; });
}

}  // namespace

bool PeerDirectory::Hear(const NodeDescription& node, bool unicast, TimePoint now, Source source) {
    const bool believed = !mSecured || source == Source::PING;
    if (node.identity.id == mOwnId || IsBuried(node.identity, now)) {
        return false;
    }
    auto known = mPeers.find(node.identity.id);
    const bool restarted = known != mPeers.end() && known->second.node.identity != node.identity;
    if (restarted && believed) {
        Bury(known->second.node.identity, now);
    }
    if (restarted || (known != mPeers.end() && !Refresh(known->second, node, now))) {
        // It has moved to another address or offers something else: for others, a new device.
        if (!believed) {
            Suspect(node.identity.id, now);
            return false;
        }
        Remove(known);
        known = mPeers.end();
    }
    if (known != mPeers.end()) {
        known->second.unicast = known->second.unicast || unicast;
        return false;
    }
    if (mPeers.size() >= MAX_PEERS) {
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
    if (peer.ways.size() < MAX_WAYS || peer.ways.count(node.endpoint) != 0) {
        peer.ways[node.endpoint] = now;
    }
    const bool sameWay = node.endpoint == peer.node.endpoint;
    const bool wayAlive = sameWay || now - peer.ways[peer.node.endpoint] < DOUBT_AFTER + GIVE_UP_AFTER;
    if (!wayAlive || node.deviceType != peer.node.deviceType) {
        return false;
    }
    peer.heard = now;
    peer.doubtedSince.reset();
    peer.saidGoodbye = false;
    mDoubted.erase(node.identity.id);
    mSuspects.erase(node.identity.id);
    return true;
}

void PeerDirectory::Leave(const NodeIdentity& identity, in_addr_t source, TimePoint now) {
    const auto known = mPeers.find(identity.id);
    if (known == mPeers.end() || known->second.node.identity != identity) {
        return;
    }
    if (!WasHeardFrom(known->second, source)) {
        return;
    }
    if (mSecured) {
        known->second.saidGoodbye = true;
        Suspect(identity.id, now);
    } else {
        Bury(identity, now);
        Remove(known);
    }
}

void PeerDirectory::Refuse(std::uint64_t nodeId, TimePoint now) {
    const auto known = mPeers.find(nodeId);
    if (known == mPeers.end()) {
        return;
    }
    // Else no grave: the same instance may live on under another address.
    if (known->second.saidGoodbye) {
        Bury(known->second.node.identity, now);
    }
    Remove(known);
}

void PeerDirectory::Suspect(std::uint64_t nodeId, TimePoint now) {
    if (mPeers.count(nodeId) != 0 && mSuspects.size() < MAX_SUSPECTS) {
        mSuspects[nodeId] = now + SUSPICION;
        CheckAt(now);
    }
}

void PeerDirectory::SuspectAt(const Endpoint& endpoint, TimePoint now) {
    for (const auto& [id, peer] : mPeers) {
        if (peer.node.endpoint == endpoint) {
            Suspect(id, now);
        }
    }
}

// Looks at every node only when the earliest can be due: with many nodes, most calls come from
// their hellos.
void PeerDirectory::Tick(TimePoint now) {
    if (now < mNextCheck) {
        return;
    }
    mNextCheck = TimePoint::max();
    DoubtSuspects(now);
    Announce(now);
    const Milliseconds doubtAfter = IsCrowd() ? DOUBT_IN_CROWD_AFTER : DOUBT_AFTER;
    const Milliseconds giveUpAfter = IsCrowd() ? GIVE_UP_IN_CROWD_AFTER : GIVE_UP_AFTER;
    for (auto at = mPeers.begin(); at != mPeers.end();) {
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
    mDoubted.insert(peer.node.identity.id);
}

void PeerDirectory::DoubtSuspects(TimePoint now) {
    for (auto at = mSuspects.begin(); at != mSuspects.end();) {
        at = at->second <= now ? mSuspects.erase(at) : std::next(at);
    }
    if (now - mAskedSince >= ASK_AGAIN_AFTER) {
        mAskedSince = now;
        mAsked = 0;
    }
    const std::size_t share = ASKED_BY_ALL / std::max<std::size_t>(mPeers.size(), 1);
    const std::size_t most = std::clamp<std::size_t>(share, 1, ASKED_AT_ONCE);
    Peer* suspect = LongestSilentSuspect();
    for (; suspect != nullptr && mAsked < most; suspect = LongestSilentSuspect()) {
        Doubt(*suspect, now);
        ++mAsked;
    }
    if (suspect != nullptr) {
        CheckAt(mAskedSince + ASK_AGAIN_AFTER);
    }
    for (const auto& [id, until] : mSuspects) {
        CheckAt(until);
    }
}

// Of those who are not in doubt yet.
Peer* PeerDirectory::LongestSilentSuspect() {
    Peer* longest = nullptr;
    for (const auto& [id, until] : mSuspects) {
        Peer& peer = mPeers.at(id);
        if (!peer.doubtedSince && (longest == nullptr || peer.heard < longest->heard)) {
            longest = &peer;
        }
    }
    return longest;
}

void PeerDirectory::Announce(TimePoint now) {
    for (auto at = mHeldBack.begin(); at != mHeldBack.end();) {
        if (!mSuspects.empty() && now < at->second) {
            CheckAt(at->second);
            ++at;
            continue;
        }
        const Peer& peer = mPeers.at(at->first);
        mEvents.push_back({true, peer.number, peer.node});
        at = mHeldBack.erase(at);
    }
}

const Peer* PeerDirectory::Find(std::uint64_t nodeId) const {
    const auto known = mPeers.find(nodeId);
    return known == mPeers.end() ? nullptr : &known->second;
}

std::vector<const Peer*> PeerDirectory::OfType(const std::string& deviceType) const {
    std::vector<const Peer*> found;
    for (const auto& [id, peer] : mPeers) {
        if (peer.node.deviceType == deviceType) {
            found.push_back(&peer);
        }
    }
    return found;
}

std::vector<DeviceEvent> PeerDirectory::TakeEvents() {
    if (mSuspects.empty()) {
        Announce(TimePoint::max());
    }
    std::vector<DeviceEvent> events;
    events.swap(mEvents);
    return events;
}

bool PeerDirectory::IsBuried(const NodeIdentity& identity, TimePoint now) {
    while (!mGraves.empty() && mGraves.front().until <= now) {
        mGraves.pop_front();
    }
    return std::any_of(mGraves.begin(), mGraves.end(),
                       [&](const Grave& grave) { return grave.identity == identity; });
}

void PeerDirectory::Bury(const NodeIdentity& identity, TimePoint now) {
    if (mGraves.size() >= MAX_GRAVES) {
        mGraves.pop_front();
    }
    mGraves.push_back({identity, now + GRAVE_TIME});
}

void PeerDirectory::Add(const NodeDescription& node, bool unicast, TimePoint now) {
    Peer peer;
    peer.node = node;
    peer.number = ++mLastNumber;
    peer.heard = now;
    peer.unicast = unicast;
    peer.ways[node.endpoint] = now;
    CheckAt(now + DOUBT_AFTER);
    if (SuspectNeighbours(node, now)) {
        mHeldBack[node.identity.id] = now + HOLD_BACK;
        CheckAt(now + HOLD_BACK);
    } else {
        mEvents.push_back({true, peer.number, node});
    }
    mPeers.emplace(node.identity.id, std::move(peer));
}

bool PeerDirectory::SuspectNeighbours(const NodeDescription& newcomer, TimePoint now) {
    if (mPeers.size() > MOST_NEIGHBOURS) {
        return false;
    }
    bool any = false;
    for (const auto& [id, peer] : mPeers) {
        if (WasHeardFrom(peer, newcomer.endpoint.host)) {
            Suspect(id, now);
            any = true;
        }
    }
    return any;
}

PeerDirectory::Peers_t::iterator PeerDirectory::Remove(Peers_t::iterator peer) {
    const bool announced = mHeldBack.erase(peer->first) == 0;
    if (announced) {
        mEvents.push_back({false, peer->second.number, peer->second.node});
    }
    mDoubted.erase(peer->first);
    mSuspects.erase(peer->first);
    return mPeers.erase(peer);
}

bool PeerDirectory::HasOwner(const Endpoint& endpoint) const {
    return std::any_of(mPeers.begin(), mPeers.end(),
                       [&](const auto& peer) { return peer.second.node.endpoint == endpoint; });
}

// Two nodes cannot listen at one endpoint: the earlier one has gone without a word.
void PeerDirectory::RemoveFormerOwner(const Endpoint& endpoint, std::uint64_t newOwner) {
    for (auto at = mPeers.begin(); at != mPeers.end();) {
        const bool former = at->second.node.endpoint == endpoint && at->first != newOwner;
        at = former ? Remove(at) : std::next(at);
    }
}

}  // namespace lumora_link
