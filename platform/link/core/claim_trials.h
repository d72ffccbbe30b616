// Pings the endpoints that claim to be a node whose place another endpoint has without having answered a
// ping. A stranger can say hello from many endpoints, at any rate; the device is the one that answers.
#pragma once

#include <functional>
#include <list>
#include <map>
#include <optional>
#include <string>

#include "platform/link/core/local_node.h"
#include "platform/link/core/ports.h"
#include "platform/link/wire/coap_message.h"

namespace lumora_link {

class ClaimTrials {
public:
    // What waits for the next round: one claim of each address.
    static constexpr std::size_t MAX_WAITING = 16;

    using Send = std::function<void(ConversationId, const Endpoint&, const CoapMessage&)>;

    ClaimTrials(const LocalNode& localNode, IdSource& idSource, Network& network)
        : mLocalNode(localNode), mIdSource(idSource), mNetwork(network) {}

    void Propose(const NodeDescription& claim);
    // False if the conversation is not one of this object. `proven` becomes what the endpoint says of itself.
    bool OnAnswer(ConversationId conversation, const CoapMessage& answer,
                  std::optional<NodeDescription>& proven);
    bool OnRefused(ConversationId conversation);
    void Tick(TimePoint now, const Send& send);
    TimePoint NextDeadline() const;

private:
    struct Trial {
        ConversationId conversation = 0;
        std::string token;
        Endpoint to;
        TimePoint end;
    };
    using Trials = std::list<Trial>;  // the oldest first

    Trials::iterator Find(ConversationId conversation);
    Trials::iterator End(Trials::iterator trial);

    const LocalNode& mLocalNode;
    IdSource& mIdSource;
    Network& mNetwork;
    std::map<in_addr_t, Endpoint> mWaiting;
    Trials mTrials;
    TimePoint mNextRound{};
};

}  // namespace lumora_link
