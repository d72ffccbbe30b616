// Tells the others that this node is here, and finds out which of them still are.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "platform/link/core/peer_directory.h"
#include "platform/link/core/self.h"
#include "platform/link/core/surroundings.h"
#include "platform/link/wire/messages.h"

namespace lumora_link {

class Presence {
public:
    static constexpr Milliseconds HELLO_INTERVAL{750};
    // A newcomer makes the others speak at once, but never more often than this.
    static constexpr Milliseconds SHORTEST_INTERVAL{250};
    static constexpr Milliseconds PING_INTERVAL{100};

    // The peers are asked and told by unicast, where multicast does not get through.
    Presence(const Self& self, Labels& labels, Network& network, std::vector<Endpoint> peers);

    void HelloSoon(TimePoint now);
    void OnNotice(const CoapMessage& notice, const Endpoint& source, bool unicast, TimePoint now);
    void Hear(const NodeDescription& node, bool unicast, TimePoint now);

    // False where the conversation is not one of ours.
    bool OnAnswer(ConversationId conversation, const CoapMessage& answer, TimePoint now);
    bool OnRefused(ConversationId conversation, TimePoint now);

    void Tick(TimePoint now);
    TimePoint NextDeadline() const;
    void SayGoodbye();

    PeerDirectory& Directory() { return mDirectory; }
    const PeerDirectory& Directory() const { return mDirectory; }
    // Where unicast copies of what goes to the group must be sent besides.
    std::vector<Endpoint> UnicastTargets() const;

private:
    struct Ping {
        ConversationId conversation = 0;
        std::string token;
        TimePoint next;
    };
    using Pings = std::map<std::uint64_t, Ping>;  // by the id of the node in doubt

    struct Text {
        std::string link;
        std::optional<NodeDescription> node;
    };

    const NodeDescription* Read(const std::string& link, const Endpoint& source);
    void Tell(const char* path);
    void PingDoubted(TimePoint now);
    void Send(Ping& ping, const Endpoint& to, TimePoint now);
    Pings::const_iterator PingOf(ConversationId conversation) const;

    const Self& mSelf;
    Labels& mLabels;
    Network& mNetwork;
    const std::vector<Endpoint> mConfigured;
    PeerDirectory mDirectory;
    Pings mPings;
    std::map<Endpoint, Text> mTexts;  // the latest from each socket
    TimePoint mLastHello{};
    TimePoint mNextHello{};
};

}  // namespace lumora_link
