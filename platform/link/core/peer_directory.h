// The nodes that this one knows, and the decision which of them are still there.
//
// A node is known by its id. It is added at first sight and removed after a goodbye, when another
// instance or another node appears in its place, or when it has been silent and a ping failed.
//
// A process that is killed and started again leaves a dead node behind, at the address where the new
// one appears. So whoever appears makes its neighbours suspects, who are pinged at once, and is
// announced when they have answered or are gone: nobody shall take the old one's end for its own.
#pragma once

#include <algorithm>
#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "platform/link/core/surroundings.h"
#include "platform/link/wire/types.h"

namespace lumora_link {

struct Peer {
    NodeDescription node;
    unsigned number = 0;
    TimePoint heard;
    // Its notices come by unicast; it must be told of us in the same way.
    bool unicast = false;
    std::map<Endpoint, TimePoint> ways;  // every address under which it was heard
    std::optional<TimePoint> doubtedSince;
    bool saidGoodbye = false;
};

class PeerDirectory {
public:
    // One hello may be lost and the next be late before anybody asks.
    static constexpr Milliseconds DOUBT_AFTER{1200};
    // Long enough for many pings on a bad network, short enough to end within 3 s of the last hello.
    static constexpr Milliseconds GIVE_UP_AFTER{1400};
    // Where many nodes lose a hello each, their pings would choke the network: two must be missing.
    static constexpr std::size_t CROWD = 32;
    static constexpr Milliseconds DOUBT_IN_CROWD_AFTER{1650};
    static constexpr Milliseconds GIVE_UP_IN_CROWD_AFTER{1250};
    // An answer of a neighbour is not waited for any longer.
    static constexpr Milliseconds HOLD_BACK{100};
    // By then every suspect that is alive has said hello to the newcomer, though pings were short.
    static constexpr Milliseconds SUSPICION{600};
    // With many nodes on one host those that have been silent longest are asked first.
    static constexpr std::size_t ASKED_AT_ONCE = 16;
    // Every node asks, so where there are many each asks fewer: the answers must not choke the host.
    static constexpr std::size_t ASKED_BY_ALL = 400;
    static constexpr Milliseconds ASK_AGAIN_AFTER{500};

    // Anybody can say hello, but only who holds the key answers a secured ping.
    enum class Source { HELLO, PING };

    // Where nodes are secured, what only a hello or goodbye says removes nobody: the node is pinged.
    explicit PeerDirectory(std::uint64_t ownId, bool secured = false) : mOwnId(ownId), mSecured(secured) {}

    // True where the node was not known before.
    bool Hear(const NodeDescription& node, bool unicast, TimePoint now, Source source = Source::HELLO);
    // Believed only when it comes from where the node was heard.
    void Leave(const NodeIdentity& identity, in_addr_t source, TimePoint now);
    // Nobody listens any more where the node was.
    void Refuse(std::uint64_t nodeId, TimePoint now);
    // Something tells that the node may be gone: to be pinged now, although it has not been silent.
    void Suspect(std::uint64_t nodeId, TimePoint now);
    void SuspectAt(const Endpoint& endpoint, TimePoint now);
    // Doubts silent nodes and suspects, and removes those that stayed silent.
    void Tick(TimePoint now);
    // At the latest; hearing from nodes only puts off what is due.
    TimePoint NextDeadline() const { return mNextCheck; }

    const Peer* Find(std::uint64_t nodeId) const;
    std::vector<const Peer*> OfType(const std::string& deviceType) const;
    const std::map<std::uint64_t, Peer>& Peers() const { return mPeers; }
    // What all of them need where each has so long to itself.
    Milliseconds ForAll(Milliseconds each) const {
        return each * static_cast<Milliseconds::rep>(mPeers.size());
    }
    // The ids of those who should be pinged.
    const std::set<std::uint64_t>& Doubted() const { return mDoubted; }

    // The additions and removals since the last call, in order.
    std::vector<DeviceEvent> TakeEvents();

private:
    using Peers_t = std::map<std::uint64_t, Peer>;

    bool IsBuried(const NodeIdentity& identity, TimePoint now);
    void Bury(const NodeIdentity& identity, TimePoint now);
    void Add(const NodeDescription& node, bool unicast, TimePoint now);
    Peers_t::iterator Remove(Peers_t::iterator peer);
    bool HasOwner(const Endpoint& endpoint) const;
    void RemoveFormerOwner(const Endpoint& endpoint, std::uint64_t newOwner);
    bool Refresh(Peer& peer, const NodeDescription& node, TimePoint now);
    bool SuspectNeighbours(const NodeDescription& newcomer, TimePoint now);
    bool IsCrowd() const { return mPeers.size() > CROWD; }
    void Doubt(Peer& peer, TimePoint now);
    void DoubtSuspects(TimePoint now);
    Peer* LongestSilentSuspect();
    void Announce(TimePoint now);
    void CheckAt(TimePoint time) { mNextCheck = std::min(mNextCheck, time); }

    const std::uint64_t mOwnId;
    const bool mSecured;
    Peers_t mPeers;
    std::set<std::uint64_t> mDoubted;
    std::map<std::uint64_t, TimePoint> mSuspects;  // until when they are
    std::map<std::uint64_t, TimePoint> mHeldBack;  // newcomers, and until when
    TimePoint mAskedSince{};
    std::size_t mAsked = 0;
    TimePoint mNextCheck = TimePoint::max();
    unsigned mLastNumber = 0;
    std::vector<DeviceEvent> mEvents;
    // Instances that ended for good: a hello that was delayed on its way must not revive them.
    struct Grave {
        NodeIdentity identity;
        TimePoint until;
    };
    std::deque<Grave> mGraves;
};

}  // namespace lumora_link
