// Tells the others that this node is here, and finds out which of them still are.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "platform/link/core/answer_budget.h"
#include "platform/link/core/claim_trials.h"
#include "platform/link/core/local_node.h"
#include "platform/link/core/peer_directory.h"
#include "platform/link/core/ports.h"
#include "platform/link/wire/messages.h"

namespace lumora_link {

class Presence {
public:
    // Each hello wakes every node, and a few idle nodes on batteries need no more of them.
    static constexpr Milliseconds HELLO_INTERVAL{1500};
    // Among many nodes a lost hello must not cause pings, so two of them fit into the time.
    static constexpr Milliseconds HELLO_INTERVAL_IN_CROWD{750};
    // A hello that would be due within this time is sent when the hello of another node wakes the thread: few
    // nodes then wake up together, and less often.
    static constexpr Milliseconds HELLO_TOGETHER{750};
    // So much earlier a node is due that followed another one. The two then take turns in waking the other.
    static constexpr Milliseconds TURN{20};
    // Newcomers cause hellos at once. Two hellos of a node are never closer than this.
    static constexpr Milliseconds SHORTEST_INTERVAL{250};
    // A live node has said hello within this time, unless datagrams were lost.
    static constexpr Milliseconds LATELY{1600};
    static constexpr Milliseconds PING_INTERVAL{75};
    // After a goodbye. A node says it before it closes its port.
    static constexpr Milliseconds SHORTEST_PING_INTERVAL{5};
    // A node that was heard once only may be invented, and its address another host's.
    static constexpr Milliseconds PING_INTERVAL_HEARD_ONCE{500};
    // Each open ping may take a descriptor.
    static constexpr std::size_t MAX_PINGS = 64;
    // About so many of many nodes greet a newcomer. Hundreds of hellos for one datagram would be a reflector.
    static constexpr std::size_t GREETERS = 8;

    // `peers` get unicast copies of what goes to the group, for networks that block multicast.
    Presence(const LocalNode& localNode, IdSource& idSource, Network& network, std::vector<Endpoint> peers);

    void HelloSoon(TimePoint now);
    void OnNetworkChanged(TimePoint now) { mListeningSince = now; }
    // Every node has had the time to greet this one or to say hello in its turn.
    bool KnowsEveryNode(TimePoint now) const { return now - mListeningSince >= LATELY; }
    // Whether that socket, of a node's interface, has said hello.
    bool HasHeard(const Endpoint& source) const { return mTexts.count(source) != 0; }
    // Of a few nodes all are chosen to say something to a newcomer, of many about GREETERS.
    bool IsChosen() const;
    void OnNotice(const CoapMessage& notice, const Endpoint& source, bool unicast, TimePoint now);
    void OnHello(const NodeDescription& node, bool unicast, TimePoint now);

    // False if the conversation is not a ping of this object.
    bool OnAnswer(ConversationId conversation, const CoapMessage& answer, TimePoint now);
    bool OnRefused(ConversationId conversation, TimePoint now);

    void Tick(TimePoint now);
    TimePoint NextDeadline() const;
    void SayGoodbye();

    PeerDirectory& Directory() { return mDirectory; }
    const PeerDirectory& Directory() const { return mDirectory; }
    // Whether more may be sent to that address now by the sockets that all others are answered by, too.
    // Addresses that have shown that they receive are not limited.
    bool MaySendTo(in_addr_t host, TimePoint now);
    // The same for pings, each of which has a socket of its own.
    bool MayPing(in_addr_t host, TimePoint now);
    void OnSentTo(in_addr_t host, const CoapMessage& message);
    // The endpoints that get unicast copies of what goes to the group.
    std::vector<Endpoint> UnicastTargets() const;

private:
    struct Ping {
        ConversationId conversation = 0;
        std::string token;
        Endpoint to;
        TimePoint next;
    };
    using Pings = std::map<std::uint64_t, Ping>;  // by the id of the node in doubt

    struct Text {
        std::string link;
        std::optional<NodeDescription> node;
        std::uint64_t place = 0;  // among those of its address
    };

    const NodeDescription* Read(const std::string& link, const Endpoint& source);
    void Tell(const char* path);
    void Greet(TimePoint now);
    void SayHelloTogether(TimePoint now);
    Milliseconds PauseAfterHello();
    Text& TextFrom(const Endpoint& source);
    void ForgetOldestText(in_addr_t host);
    void PingDoubted(TimePoint now);
    void PingClaims(TimePoint now);
    std::size_t EndOtherPings(const std::vector<std::uint64_t>& doubted);
    bool IsTrusted(in_addr_t host) const;
    const Peer* PingedBy(ConversationId conversation) const;
    static Milliseconds PauseAfterPing(const Peer& peer, TimePoint now);
    void Send(Ping& ping, const Peer& peer, TimePoint now);

    const LocalNode& mLocalNode;
    IdSource& mIdSource;
    Network& mNetwork;
    const std::vector<Endpoint> mConfigured;
    PeerDirectory mDirectory;
    Pings mPings;
    TimePoint mMorePings = TimePoint::max();          // when those begin for which there was no socket
    std::map<ConversationId, std::uint64_t> mPinged;  // the ids of the nodes
    std::map<Endpoint, Text> mTexts;                  // the latest from each socket
    SourceQuota mTextQuota;
    OldestFirst<Endpoint> mOldestTexts;
    TimePoint mListeningSince{};
    TimePoint mLastHello{};
    TimePoint mNextHello{};
    bool mInStep = false;    // other nodes say hello at nearly the same moments
    bool mFollowed = false;  // the next hello follows that of another node
    AnswerBudget mBudget;
    ClaimTrials mTrials;
};

}  // namespace lumora_link
