// Finds the nodes of a device type, and lets this node be found.
#pragma once

#include <cstdint>
#include <list>
#include <map>
#include <string>
#include <vector>

#include "platform/link/core/local_node.h"
#include "platform/link/core/look_round.h"
#include "platform/link/core/ports.h"
#include "platform/link/core/presence.h"
#include "platform/link/core/search.h"
#include "platform/link/core/unanswered_peers.h"

namespace lumora_link {

class Discovery {
public:
    Discovery(const LocalNode& localNode, IdSource& idSource, Network& network, Application& application,
              Presence& presence, const UnansweredPeers& unanswered);

    // Asks which other nodes of this node's type there are, so that this node can tell their number soon.
    void BeginLookRound(TimePoint now);
    void StartSearch(std::uint64_t ticket, const std::string& deviceType, TimePoint now);
    // Schedules the answer to a probe that came to the group. The answer leaves from that interface.
    void OnProbe(const CoapMessage& probe, const Endpoint& source, const LocalInterface& via, TimePoint now);
    void OnAnswer(const CoapMessage& answer, const Endpoint& source, TimePoint now);
    // This node's answer to a probe, as nodes see it that reach it through that address of this host.
    CoapMessage AnswerTo(const CoapMessage& probe, in_addr_t localHost, TimePoint now) const;

    // The node has left, so no search waits for it.
    void OnRemoved(std::uint64_t nodeId);

    void Tick(TimePoint now);
    TimePoint NextDeadline(TimePoint now) const;
    // Ends every search with an empty result.
    void Close();

private:
    struct Running {
        std::uint64_t ticket;
        std::string token;  // without the probe's number, which follows it on the wire
        Search search;
    };
    struct DelayedAnswer {
        Endpoint to;
        unsigned interface;
        CoapMessage message;
    };

    // How many answers an asker got in the current second.
    struct Allowance {
        TimePoint since;
        unsigned used = 0;

        // False if `most` were taken within this second.
        bool Take(unsigned most, TimePoint now);
    };

    bool MayAnswer(const Endpoint& asker, TimePoint now);
    bool MayAnswerLookRound(TimePoint now);
    // The probes of a look round wait while this node searches.
    bool MayLookRound() const { return mSearches.empty(); }
    void OnLookRound(const CoapMessage& probe, const Endpoint& source, TimePoint now);
    bool AwaitsHello(TimePoint now) const;
    bool CanCount(TimePoint now) const;
    std::optional<NodeDescription> NodeIn(const CoapMessage& answer, const Endpoint& source,
                                          const std::string& deviceType) const;
    Milliseconds LongestDelay(const CoapMessage& probe) const;
    std::size_t NodesLikeThis() const;
    void SendDueAnswers(TimePoint now);
    void SendDueLooks(TimePoint now);
    void SendDueProbes(Running& running, TimePoint now);
    void DismissRemoved(Search& search);
    void Probe(const Running& running, unsigned number, TimePoint now);
    void SendProbe(CoapMessage& toGroup, CoapMessage& toNode, const std::vector<Endpoint>& targets);
    std::vector<NodeDescription> ResultOf(const Search& search, TimePoint now) const;

    const LocalNode& mLocalNode;
    IdSource& mIdSource;
    Network& mNetwork;
    Application& mApplication;
    Presence& mPresence;
    const UnansweredPeers& mUnanswered;
    std::list<Running> mSearches;
    std::multimap<TimePoint, DelayedAnswer> mAnswers;
    std::map<Endpoint, Allowance> mAskers;
    LookRound mLookRound;
    Allowance mLookRoundAnswers;
    std::map<Endpoint, TimePoint> mNewcomers;  // by their sockets, and until when a hello is awaited
};

}  // namespace lumora_link
