#include "platform/link/core/peer_directory.h"

#include <algorithm>

namespace lumora_link {

namespace {

constexpr std::size_t MAX_HOSTS = 16;
constexpr std::size_t MAX_SUSPECTS = 512;
// Among more nodes, the pings would cost more than the early removal of a dead one is worth.
constexpr std::size_t MOST_NEIGHBOURS = 64;
constexpr std::size_t MAX_TOMBSTONES = 1024;
constexpr Milliseconds TOMBSTONE_TIME{10000};

bool WasHeardFrom(const Peer& peer, in_addr_t host) { return peer.hosts.count(host) != 0; }

}  // namespace

bool PeerDirectory::OnHello(const NodeDescription& node, bool unicast, TimePoint now) {
    if (node.identity.id == mOwnId || HasTombstone(node, now)) {
        return false;
    }
    const auto known = mPeers.find(node.identity.id);
    if (known != mPeers.end()) {
        OnWord(known->second, node, unicast, now);
        return false;
    }
    const auto owner = mIds.find(node.endpoint);
    if (owner != mIds.end()) {
        // Two nodes cannot listen at one endpoint. The ping's answer tells which of them does.
        Challenge(mPeers.at(owner->second), now);
        return false;
    }
    if (!MakeRoom(node.endpoint.host)) {
        return false;
    }
    AskIfUnicast(Add(node, unicast, now), now);
    return true;
}

// A node whose hellos come by unicast gets this node's hellos by unicast. Its address may be forged, so it
// must answer a ping first.
void PeerDirectory::AskIfUnicast(Peer& peer, TimePoint now) {
    if (peer.unicast && !peer.confirmed) {
        Challenge(peer, now);
    }
}

// A node on several interfaces is heard under several addresses. It keeps the first one while that one is
// alive, so that searches, events and requests name it alike. Only hellos from that address keep it alive,
// because another host may send the same hello; and until it has answered a ping, hellos alone do not.
void PeerDirectory::OnWord(Peer& peer, const NodeDescription& node, bool unicast, TimePoint now) {
    if (peer.hosts.size() < MAX_HOSTS) {
        peer.hosts.insert(node.endpoint.host);
    }
    if (peer.node.identity != node.identity || peer.node.deviceType != node.deviceType) {
        Contest(peer, node, now);
        return;
    }
    // A hello after a goodbye may have been delayed on its way. Only the answer to a ping disproves the
    // goodbye.
    if (node.endpoint == peer.node.endpoint && !peer.saidGoodbye) {
        peer.unicast = peer.unicast || unicast;
        ++peer.words;
        Clear(peer, now);
        if (!IsCrowd()) {
            // The thread is awake for this hello. Looking now saves waking up when the peer would have been
            // due.
            CheckAt(now);
        }
        AskIfUnicast(peer, now);
    } else if (!peer.confirmed) {
        // One of the two endpoints may belong to a stranger. The known one stays if it answers the ping.
        Contest(peer, node, now);
    }
}

void PeerDirectory::Contest(Peer& peer, const NodeDescription& contender, TimePoint now) {
    Challenge(peer, now);
    if (!peer.confirmed && !peer.contenderIsProven && contender.endpoint != peer.node.endpoint) {
        peer.contender = contender;
    }
}

bool PeerDirectory::IsClaim(const NodeDescription& node) const {
    const auto known = mPeers.find(node.identity.id);
    return known != mPeers.end() && !known->second.confirmed && !known->second.contenderIsProven &&
           known->second.node.endpoint != node.endpoint;
}

void PeerDirectory::OnProven(const NodeDescription& node, TimePoint now) {
    const auto known = mPeers.find(node.identity.id);
    if (known == mPeers.end()) {
        GivePlaceTo(node, true, now);
    } else if (known->second.node.endpoint == node.endpoint) {
        OnPong(node.identity.id, node, now);
    } else if (IsClaim(node)) {
        Contest(known->second, node, now);
        known->second.contenderIsProven = true;
    }
}

void PeerDirectory::GivePlaceTo(const NodeDescription& contender, bool isProven, TimePoint now) {
    OnHello(contender, false, now);
    const auto known = mPeers.find(contender.identity.id);
    if (isProven && known != mPeers.end() && known->second.node.endpoint == contender.endpoint) {
        Confirm(known->second);
    }
}

bool PeerDirectory::OnPong(std::uint64_t pinged, NodeDescription node, TimePoint now) {
    const auto known = mPeers.find(pinged);
    if (known == mPeers.end()) {
        return false;
    }
    Peer& peer = known->second;
    // The answer proves nothing about any other endpoint, whatever it says.
    node.endpoint = peer.node.endpoint;
    if (node.identity == peer.node.identity && node.deviceType == peer.node.deviceType) {
        peer.goodbyeDisproved = peer.goodbyeDisproved || peer.saidGoodbye;
        peer.saidGoodbye.reset();
        peer.goodbyeHosts.clear();
        peer.contender.reset();
        peer.contenderIsProven = false;
        Clear(peer, now);
        Confirm(peer);
        return false;
    }
    // The node was started again, has another type, or another node has its port. Each counts as a new
    // device.
    const bool unicast = peer.unicast;
    if (node.identity.id == pinged && node.identity != peer.node.identity) {
        AddTombstone(peer.node.identity, peer.node.endpoint, now);
    }
    Remove(known);
    const auto elsewhere = mPeers.find(node.identity.id);
    if (elsewhere != mPeers.end()) {
        Challenge(elsewhere->second, now);
        return false;
    }
    if (node.identity.id == mOwnId || HasTombstone(node, now)) {
        return false;
    }
    Confirm(Add(node, unicast, now));
    return true;
}

void PeerDirectory::OnGoodbye(const NodeIdentity& identity, in_addr_t source, TimePoint now) {
    const auto known = mPeers.find(identity.id);
    if (known == mPeers.end() || known->second.node.identity != identity ||
        !WasHeardFrom(known->second, source)) {
        return;
    }
    Peer& peer = known->second;
    peer.goodbyeHosts.insert(source);
    if (peer.saidGoodbye) {
        return;
    }
    if (peer.goodbyeDisproved) {
        Challenge(peer, now);
        return;
    }
    peer.saidGoodbye = now;
    Probe(peer, now);
    CheckAt(now);
}

void PeerDirectory::OnPinged(std::uint64_t nodeId, TimePoint now) {
    const auto known = mPeers.find(nodeId);
    if (known != mPeers.end() && known->second.doubtedSince && !known->second.pinged) {
        known->second.pinged = now;
        CheckAt(GivenUpAt(known->second));
    }
}

void PeerDirectory::OnPortUnreachable(std::uint64_t nodeId, TimePoint now) {
    const auto known = mPeers.find(nodeId);
    if (known == mPeers.end()) {
        return;
    }
    const Peer& peer = known->second;
    // A confirmed node that said no goodbye may have lost its port for a moment: no tombstone, it may come
    // back. One that never answered is a stranger's invention, and the stranger may repeat it at once.
    if (peer.saidGoodbye || !peer.confirmed) {
        AddTombstone(peer, now);
    }
    const std::optional<NodeDescription> contender = peer.contender;
    const bool isProven = peer.contenderIsProven;
    Remove(known);
    if (contender) {
        GivePlaceTo(*contender, isProven, now);
    }
}

// Any host can send a claim about a node, and every node that hears it pings that node. So each limits its
// pings.
void PeerDirectory::Challenge(Peer& peer, TimePoint now) {
    if (now - peer.challenged >= ASK_AGAIN_AFTER) {
        peer.challenged = now;
        Suspect(peer.node.identity.id, now);
    }
}

void PeerDirectory::Suspect(std::uint64_t nodeId, TimePoint now) {
    if (mPeers.count(nodeId) != 0 && mSuspects.size() < MAX_SUSPECTS) {
        mSuspects[nodeId] = now + SUSPICION;
        CheckAt(now);
    }
}

void PeerDirectory::SuspectAt(const Endpoint& endpoint, TimePoint now) {
    const auto owner = mIds.find(endpoint);
    if (owner != mIds.end()) {
        Suspect(owner->second, now);
    }
}

void PeerDirectory::AskAt(in_addr_t host, TimePoint now) {
    const std::uint64_t* oldest = mUnconfirmed.Oldest(host);
    if (oldest == nullptr) {
        return;
    }
    Peer& peer = mPeers.at(*oldest);
    if (now - peer.challenged >= ASK_AGAIN_AFTER) {
        peer.challenged = now;
        Probe(peer, now);
        CheckAt(now);
    }
}

// Looks at all nodes only when one can be due. With many nodes most calls are caused by hellos, and looking
// each time would be slow.
void PeerDirectory::Tick(TimePoint now) {
    if (now < NextDeadline()) {
        return;
    }
    mNextCheck = TimePoint::max();
    mMayCheck = now + CHECK_MANY_EVERY;
    ProbeSuspects(now);
    Announce(now);
    std::vector<std::pair<NodeDescription, bool>> contenders;
    for (auto at = mPeers.begin(); at != mPeers.end();) {
        Peer& peer = at->second;
        if (!peer.doubtedSince && now - peer.heard >= DOUBT_AFTER) {
            Probe(peer, now);
        }
        const TimePoint due = peer.doubtedSince ? GivenUpAt(peer) : peer.heard + DOUBT_AFTER;
        if (due <= now) {
            if (peer.saidGoodbye) {
                AddTombstone(peer, now);
            }
            // Without a goodbye the cause may be a cut link. No tombstone: the same instance may come back.
            if (peer.contender) {
                contenders.emplace_back(*peer.contender, peer.contenderIsProven);
            }
            at = Remove(at);
            continue;
        }
        CheckAt(due);
        ++at;
    }
    for (const auto& [contender, isProven] : contenders) {
        GivePlaceTo(contender, isProven, now);
    }
}

TimePoint PeerDirectory::GivenUpAt(const Peer& peer) {
    if ((peer.contender || peer.saidGoodbye) && !peer.pinged) {
        return *peer.doubtedSince + LONGEST_WITHOUT_PING;
    }
    // A suspect that does not answer gets as much time as any other silent node.
    // The hellos of one with a contender prove nothing.
    const TimePoint doubted =
        peer.contender ? *peer.pinged : std::max(*peer.doubtedSince, peer.heard + DOUBT_AFTER);
    const TimePoint silent = doubted + GIVE_UP_AFTER;
    return peer.saidGoodbye
               ? std::min(silent, std::max(*peer.saidGoodbye, *peer.pinged) + GIVE_UP_AFTER_GOODBYE)
               : silent;
}

void PeerDirectory::Probe(Peer& peer, TimePoint now) {
    if (!peer.doubtedSince) {
        peer.doubtedSince = now;
        (peer.confirmed ? mDoubtedConfirmed : mDoubtedOthers).insert({peer.number, peer.node.identity.id});
    }
}

void PeerDirectory::EndProbe(Peer& peer) {
    const Age age{peer.number, peer.node.identity.id};
    peer.doubtedSince.reset();
    peer.pinged.reset();
    mDoubtedConfirmed.erase(age);
    mDoubtedOthers.erase(age);
    mSuspects.erase(peer.node.identity.id);
}

// The node was heard at its endpoint just now. If another endpoint claims to be this node, a hello is not
// enough: a stranger that repeats hellos would keep a newcomer from the real node for ever.
void PeerDirectory::Clear(Peer& peer, TimePoint now) {
    peer.heard = now;
    if (!peer.contender) {
        EndProbe(peer);
    }
}

void PeerDirectory::Confirm(Peer& peer) {
    if (!peer.confirmed) {
        peer.confirmed = true;
        LeaveUnconfirmed(peer);
        ++mConfirmedAt[peer.node.endpoint.host];
    }
}

std::vector<std::uint64_t> PeerDirectory::Doubted(std::size_t most) const {
    std::vector<std::uint64_t> ids;
    for (const std::set<Age>* doubted : {&mDoubtedConfirmed, &mDoubtedOthers}) {
        for (auto at = doubted->begin(); at != doubted->end() && ids.size() < most; ++at) {
            ids.push_back(at->second);
        }
    }
    return ids;
}

void PeerDirectory::ProbeSuspects(TimePoint now) {
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
        Probe(*suspect, now);
        ++mAsked;
    }
    if (suspect != nullptr) {
        CheckAt(mAskedSince + ASK_AGAIN_AFTER);
    }
    for (const auto& [id, until] : mSuspects) {
        CheckAt(until);
    }
}

// Only suspects that are not pinged yet. Null if there is none.
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

std::size_t PeerDirectory::CountOfType(const std::string& deviceType) const {
    // If no address has too many unconfirmed nodes, every node is credible.
    if (mUnconfirmedQuota.LargestCount() <= MANY) {
        const auto count = mTypes.find(deviceType);
        return count == mTypes.end() ? 0 : count->second;
    }
    const std::vector<const Peer*> peers = OfType(deviceType);
    return static_cast<std::size_t>(
        std::count_if(peers.begin(), peers.end(), [this](const Peer* peer) { return IsCredible(*peer); }));
}

std::vector<DeviceEvent> PeerDirectory::TakeEvents() {
    if (mSuspects.empty()) {
        Announce(TimePoint::max());
    }
    std::vector<DeviceEvent> events;
    events.swap(mEvents);
    return events;
}

bool PeerDirectory::HasTombstone(const NodeDescription& node, TimePoint now) {
    while (!mTombstones.empty() && mTombstones.front().until <= now) {
        mTombstones.pop_front();
    }
    return std::any_of(mTombstones.begin(), mTombstones.end(), [&](const Tombstone& tombstone) {
        return tombstone.identity == node.identity && tombstone.endpoint == node.endpoint;
    });
}

// A node on several networks says goodbye on each, under the address that it has there.
void PeerDirectory::AddTombstone(const Peer& peer, TimePoint now) {
    AddTombstone(peer.node.identity, peer.node.endpoint, now);
    for (const in_addr_t host : peer.goodbyeHosts) {
        if (host != peer.node.endpoint.host) {
            AddTombstone(peer.node.identity, {host, peer.node.endpoint.port}, now);
        }
    }
}

void PeerDirectory::AddTombstone(const NodeIdentity& identity, const Endpoint& endpoint, TimePoint now) {
    if (mTombstones.size() >= MAX_TOMBSTONES) {
        mTombstones.pop_front();
    }
    mTombstones.push_back({identity, endpoint, now + TOMBSTONE_TIME});
}

Peer& PeerDirectory::Add(const NodeDescription& node, bool unicast, TimePoint now) {
    Peer peer;
    peer.node = node;
    peer.number = ++mLastNumber;
    peer.heard = now;
    peer.unicast = unicast;
    peer.hosts.insert(node.endpoint.host);
    CheckAt(now + DOUBT_AFTER);
    if (SuspectNeighbours(node, now)) {
        mHeldBack[node.identity.id] = now + HOLD_BACK;
        CheckAt(now + HOLD_BACK);
    } else {
        mEvents.push_back({true, peer.number, node});
    }
    mIds[node.endpoint] = node.identity.id;
    peer.place = mUnconfirmed.Add(node.endpoint.host, node.identity.id);
    mUnconfirmedQuota.Enter(node.endpoint.host);
    std::size_t* const sameType = node.deviceType ? &mTypes[*node.deviceType] : nullptr;
    Peer& added = mPeers.emplace(node.identity.id, std::move(peer)).first->second;
    if (sameType != nullptr) {
        ++*sameType;
    }
    return added;
}

// Confirmed nodes are never dropped. Of the others, the oldest of the address with most nodes is dropped.
bool PeerDirectory::MakeRoom(in_addr_t newcomer) {
    if (mPeers.size() < MAX_PEERS) {
        return true;
    }
    const in_addr_t yields = mUnconfirmedQuota.Largest(newcomer);
    const std::uint64_t* oldest = mUnconfirmed.Oldest(yields);
    if (oldest == nullptr) {
        return false;
    }
    mUnconfirmedQuota.OnBite(yields);
    Remove(mPeers.find(*oldest));
    return true;
}

void PeerDirectory::LeaveUnconfirmed(const Peer& peer) {
    mUnconfirmed.Remove(peer.node.endpoint.host, peer.place);
    mUnconfirmedQuota.Leave(peer.node.endpoint.host);
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

PeerDirectory::Peers_t::iterator PeerDirectory::Remove(Peers_t::iterator at) {
    Peer& peer = at->second;
    const bool announced = mHeldBack.erase(at->first) == 0;
    if (announced) {
        mEvents.push_back({false, peer.number, peer.node});
    }
    EndProbe(peer);
    mIds.erase(peer.node.endpoint);
    const in_addr_t host = peer.node.endpoint.host;
    if (!peer.confirmed) {
        LeaveUnconfirmed(peer);
    } else if (--mConfirmedAt[host] == 0) {
        mConfirmedAt.erase(host);
    }
    const auto sameType = peer.node.deviceType ? mTypes.find(*peer.node.deviceType) : mTypes.end();
    if (sameType != mTypes.end() && --sameType->second == 0) {
        mTypes.erase(sameType);
    }
    return mPeers.erase(at);
}

}  // namespace lumora_link
