// The requests of this node to others, from the first datagram to the one outcome.
//
// A message is repeated with the same id until it is answered; the other end runs it once. While
// the handler there takes its time, pings tell whether the node is still alive.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "platform/link/core/local_node.h"
#include "platform/link/core/ports.h"
#include "platform/link/core/unanswered_peers.h"
#include "platform/link/wire/messages.h"

namespace lumora_link {

struct OutgoingRequest {
    std::uint64_t ticket = 0;
    Endpoint to;
    std::uint8_t method = code::EMPTY;
    std::string key;
    std::string value;
};

class RequestClient {
public:
    // Nothing heard of the peer for that long: it is absent.
    static constexpr Milliseconds SILENCE{6500};
    // An application's handler, behind a POST, PUT or DELETE, is waited for that long.
    static constexpr Milliseconds LONGEST{60000};
    // No code of an application runs in a GET.
    static constexpr Milliseconds LONGEST_GET{8000};
    // A GET to a node that left a request unanswered, or that was removed.
    static constexpr Milliseconds LONGEST_GET_AFTER_SILENCE{500};

    RequestClient(const LocalNode& localNode, IdSource& idSource, Network& network, Application& application,
                  UnansweredPeers& unanswered);

    void Start(OutgoingRequest request, TimePoint now);
    // False if the conversation is not a request of this object.
    bool OnAnswer(ConversationId conversation, const CoapMessage& answer, TimePoint now);
    // No copy of that message was acknowledged within UNACKNOWLEDGED (see Network).
    void OnUnacknowledged(ConversationId conversation, std::uint16_t messageId, TimePoint now);
    void OnReached(ConversationId conversation, TimePoint now);
    // The endpoint of the refused request. Empty if the conversation is not a request of this object.
    std::optional<Endpoint> OnRefused(ConversationId conversation);
    // The node was removed. A GET of which nothing was heard since gets little time from now on.
    void OnPeerGone(const Endpoint& peer, TimePoint now);
    void Tick(TimePoint now);
    TimePoint NextDeadline() const;
    // Ends every request without an answer.
    void Close();

private:
    struct Exchange {
        OutgoingRequest request;
        std::vector<std::string> blocks;
        std::size_t block = 0;
        CoapMessage message;  // of the current block
        std::uint32_t sequence = 0;
        std::uint32_t firstOfBody = 0;
        std::uint64_t secret = 0;
        unsigned restarts = 0;
        TimePoint begun;  // the current message
        TimePoint heard;
        TimePoint end;       // no answer is waited for after this
        bool hasty = false;  // there is little time
        unsigned copies = 0;
        TimePoint nextCopy;
        std::string pingToken;
        TimePoint nextPing;
    };
    using Exchanges = std::map<ConversationId, Exchange>;

    void BeginBody(ConversationId conversation, Exchange& exchange, TimePoint now);
    void BeginMessage(ConversationId conversation, Exchange& exchange, TimePoint now);
    CoapMessage Compose(const Exchange& exchange);
    void SendCopy(ConversationId conversation, Exchange& exchange, TimePoint now);
    void SendPing(ConversationId conversation, Exchange& exchange, TimePoint now);
    std::uint32_t OldestOpen() const;
    std::uint64_t SecretFor(const Endpoint& device);
    void ReplaceSecret(const Endpoint& device, std::uint64_t former);
    Exchanges::iterator End(Exchanges::iterator exchange, Outcome outcome);
    void EndUnanswered(Exchanges::iterator exchange, TimePoint now);

    const LocalNode& mLocalNode;
    IdSource& mIdSource;
    Network& mNetwork;
    Application& mApplication;
    UnansweredPeers& mUnanswered;
    Exchanges mExchanges;
    std::map<Endpoint, std::uint64_t> mSecrets;  // one for each device
    std::uint32_t mSequence = 0;
};

}  // namespace lumora_link
