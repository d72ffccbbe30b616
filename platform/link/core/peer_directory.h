// The nodes that this one knows, and the decision which of them are still there.
//
// A node is known by its id. It is added at first sight and removed only when a ping failed: its port
// refused, something else answered there, or no answer came. Hellos and goodbyes can be forged, so what
// they say about a known node only makes it pinged. A node that has answered a ping is confirmed.
//
// A process that is killed and started again leaves a dead node at the address of the new one. So the nodes
// at the address of a newcomer become suspects and are pinged at once. The newcomer is announced when they
// have answered or are removed. Otherwise an application that compares addresses would take the old node's
// removal for the removal of the new one.
#pragma once

#include <algorithm>
#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "platform/link/core/ports.h"
#include "platform/link/core/source_quota.h"
#include "platform/link/wire/types.h"

namespace lumora_link {

struct Peer {
    NodeDescription node;
    unsigned number = 0;
    TimePoint heard;  // at its endpoint
    // Its hellos come by unicast, so hellos of this node must go to it by unicast too.
    bool unicast = false;
    std::set<in_addr_t> hosts;  // every address under which it was heard
    std::optional<TimePoint> doubtedSince;
    std::optional<TimePoint> pinged;  // first since then
    std::optional<TimePoint> saidGoodbye;
    std::set<in_addr_t> goodbyeHosts;  // the addresses from which the goodbye came
    // It answered a ping after a goodbye, which was therefore forged. Its next goodbye shortens no timeout.
    bool goodbyeDisproved = false;
    bool confirmed = false;
    // What another endpoint says, that claims to be this node. Only the answer to a ping refutes it; without
    // one the contender gets the place. One that has answered a ping itself yields to no further one.
    std::optional<NodeDescription> contender;
    bool contenderIsProven = false;
    unsigned words = 1;  // how often it was heard at its endpoint
    TimePoint challenged{};
    std::uint64_t place = 0;  // among the unconfirmed nodes of its address

    // One forged datagram invents a node. An established node has sent more than one, or has answered a ping.
    bool IsEstablished() const { return confirmed || words > 1; }
};

class PeerDirectory {
public:
    // Bounds what a flood of invented nodes can cost.
    static constexpr std::size_t MAX_PEERS = 4096;
    // A node is pinged if one hello of a few nodes, or two hellos of a crowd, are missing.
    static constexpr Milliseconds DOUBT_AFTER{1700};
    // Long enough for many pings on a bad network, short enough to end within 3 s of the last hello.
    static constexpr Milliseconds GIVE_UP_AFTER{1250};
    // More nodes than this say hello twice as often: if each lost hello of many nodes caused pings, the pings
    // would choke the network.
    static constexpr std::size_t CROWD = 32;
    // The longest wait for the answers of a newcomer's neighbours.
    static constexpr Milliseconds HOLD_BACK{100};
    // Long enough for every live suspect to have sent a hello even if its ping was not sent (rate limit).
    static constexpr Milliseconds SUSPICION{600};
    // With many nodes on one host those that have been silent longest are asked first.
    static constexpr std::size_t ASKED_AT_ONCE = 16;
    // Every node pings. Among many nodes each pings fewer, so that the answers do not overload the host.
    static constexpr std::size_t ASKED_BY_ALL = 400;
    static constexpr Milliseconds ASK_AGAIN_AFTER{500};
    // After its goodbye a node does not answer. Most hosts refuse at once; others drop the pings.
    static constexpr Milliseconds GIVE_UP_AFTER_GOODBYE{500};
    // A node of which others say that it is gone, or elsewhere, is not given up before a ping has left. Among
    // many nodes in doubt it may have to wait so long for its turn.
    static constexpr Milliseconds LONGEST_WITHOUT_PING{10000};
    // With many nodes, looking at all of them each time that one is due would use a whole core.
    static constexpr std::size_t MANY = 256;
    static constexpr Milliseconds CHECK_MANY_EVERY{10};

    explicit PeerDirectory(std::uint64_t ownId) : mOwnId(ownId) {}

    // What a hello or an answer to a probe says. True if the node was not known before.
    bool OnHello(const NodeDescription& node, bool unicast, TimePoint now);
    // A node at the endpoint of the pinged one has answered the ping and described itself. True if that
    // is a node that was not known before.
    bool OnPong(std::uint64_t pinged, NodeDescription node, TimePoint now);
    // Whether another endpoint has the place of that node, without having answered a ping.
    bool IsClaim(const NodeDescription& node) const;
    // A node that is not known at its endpoint has answered a ping there, and said this of itself.
    void OnProven(const NodeDescription& node, TimePoint now);
    // Ignored unless it comes from an address at which the node was heard.
    void OnGoodbye(const NodeIdentity& identity, in_addr_t source, TimePoint now);
    // A ping has left to that node.
    void OnPinged(std::uint64_t nodeId, TimePoint now);
    // The host of the pinged node answers that no socket has the port.
    void OnPortUnreachable(std::uint64_t nodeId, TimePoint now);
    // The node may be gone although it has not been silent. It is pinged now.
    void Suspect(std::uint64_t nodeId, TimePoint now);
    void SuspectAt(const Endpoint& endpoint, TimePoint now);
    // Pings a node at that address, to learn whether the address receives what is sent there.
    void AskAt(in_addr_t host, TimePoint now);
    // Probes silent nodes and suspects, and removes those that stayed silent.
    void Tick(TimePoint now);
    // When Tick has something to do at the latest. Hellos only put that off.
    TimePoint NextDeadline() const { return IsMany() ? std::max(mNextCheck, mMayCheck) : mNextCheck; }

    const Peer* Find(std::uint64_t nodeId) const;
    // Whether a search may count on it: its address is not flooding the table, or it was heard more than
    // once.
    bool IsCredible(const Peer& peer) const {
        return peer.IsEstablished() || mUnconfirmedQuota.CountOf(peer.node.endpoint.host) <= MANY;
    }
    std::vector<const Peer*> OfType(const std::string& deviceType) const;
    // How many credible nodes have the type. Every answer to a probe needs it, so it is kept.
    std::size_t CountOfType(const std::string& deviceType) const;
    const std::map<std::uint64_t, Peer>& Peers() const { return mPeers; }
    bool IsCrowd() const { return mPeers.size() > CROWD; }
    // How many nodes were dropped to make room for others.
    std::size_t QuotaBites() const { return mUnconfirmedQuota.Bites(); }
    // The time for all nodes together if each gets so long.
    Milliseconds ForAll(Milliseconds each) const {
        return each * static_cast<Milliseconds::rep>(mPeers.size());
    }
    // The ids of those to be pinged: confirmed nodes first, then those that have been known longest.
    std::vector<std::uint64_t> Doubted(std::size_t most) const;
    // Whether a node at that address has answered a ping.
    bool IsConfirmed(in_addr_t host) const { return mConfirmedAt.count(host) != 0; }

    // The additions and removals since the last call, in order.
    std::vector<DeviceEvent> TakeEvents();

private:
    using Peers_t = std::map<std::uint64_t, Peer>;
    using Age = std::pair<unsigned, std::uint64_t>;  // number, id: the smaller, the longer known

    // An instance that ended at an endpoint. A hello that was delayed on its way must not revive it. The same
    // instance at another endpoint is not affected: a stranger that says hello and goodbye under its own
    // address with the identity of a device must not hide that device.
    struct Tombstone {
        NodeIdentity identity;
        Endpoint endpoint;
        TimePoint until;
    };

    bool HasTombstone(const NodeDescription& node, TimePoint now);
    void AddTombstone(const Peer& peer, TimePoint now);
    void AddTombstone(const NodeIdentity& identity, const Endpoint& endpoint, TimePoint now);
    Peer& Add(const NodeDescription& node, bool unicast, TimePoint now);
    Peers_t::iterator Remove(Peers_t::iterator peer);
    bool MakeRoom(in_addr_t newcomer);
    void LeaveUnconfirmed(const Peer& peer);
    void OnWord(Peer& peer, const NodeDescription& node, bool unicast, TimePoint now);
    void AskIfUnicast(Peer& peer, TimePoint now);
    void Clear(Peer& peer, TimePoint now);
    void Confirm(Peer& peer);
    void Challenge(Peer& peer, TimePoint now);
    void Contest(Peer& peer, const NodeDescription& contender, TimePoint now);
    void GivePlaceTo(const NodeDescription& contender, bool isProven, TimePoint now);
    bool SuspectNeighbours(const NodeDescription& newcomer, TimePoint now);
    bool IsMany() const { return mPeers.size() > MANY; }
    static TimePoint GivenUpAt(const Peer& peer);
    void Probe(Peer& peer, TimePoint now);
    void EndProbe(Peer& peer);
    void ProbeSuspects(TimePoint now);
    Peer* LongestSilentSuspect();
    void Announce(TimePoint now);
    void CheckAt(TimePoint time) { mNextCheck = std::min(mNextCheck, time); }

    const std::uint64_t mOwnId;
    Peers_t mPeers;
    std::map<Endpoint, std::uint64_t> mIds;
    std::map<std::string, std::size_t> mTypes;  // how many nodes have the device type
    SourceQuota mUnconfirmedQuota{"nodes", MAX_PEERS, MAX_PEERS};
    OldestFirst<std::uint64_t> mUnconfirmed;        // ids
    std::map<in_addr_t, std::size_t> mConfirmedAt;  // how many confirmed nodes have that address
    std::set<Age> mDoubtedConfirmed;
    std::set<Age> mDoubtedOthers;
    std::map<std::uint64_t, TimePoint> mSuspects;  // until when they are
    std::map<std::uint64_t, TimePoint> mHeldBack;  // newcomers, and until when
    TimePoint mAskedSince{};
    std::size_t mAsked = 0;
    TimePoint mNextCheck = TimePoint::max();
    TimePoint mMayCheck{};
    unsigned mLastNumber = 0;
    std::vector<DeviceEvent> mEvents;
    std::deque<Tombstone> mTombstones;
};

}  // namespace lumora_link
