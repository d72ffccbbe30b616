// One node's whole protocol, without a socket, a thread or a clock of its own.
//
// All functions are called on the I/O thread, with the current time. The node acts through Network and
// Application. The caller must call Tick when NextDeadline is reached, and need not call it earlier.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "platform/link/core/discovery.h"
#include "platform/link/core/local_node.h"
#include "platform/link/core/ports.h"
#include "platform/link/core/presence.h"
#include "platform/link/core/request_client.h"
#include "platform/link/core/request_server.h"

namespace lumora_link {

class NodeCore {
public:
    // `secured`: this node has a key. It then uses DTLS and ignores nodes without a key.
    NodeCore(NodeIdentity identity, bool secured, std::vector<Endpoint> peers, RandomSource& random,
             Network& network, Application& application);

    // From the application.
    void SetDeviceType(std::optional<std::string> deviceType, TimePoint now);
    void SetInterfaces(std::vector<LocalInterface> interfaces, std::uint16_t port, TimePoint now);
    void StartSearch(std::uint64_t ticket, const std::string& deviceType, TimePoint now);
    void StartRequest(OutgoingRequest request, TimePoint now);
    void OnHandled(std::uint64_t ticket, const Outcome& outcome, TimePoint now);
    void RefuseRequests() { mServer.Refuse(); }
    // Says goodbye. Open requests and searches end without a result.
    void Close(TimePoint now);

    // From the network. A group message came to the multicast socket, an answer to an interface's.
    void OnGroupMessage(const CoapMessage& message, const Endpoint& source, unsigned interface,
                        TimePoint now);
    void OnSearchAnswer(const CoapMessage& message, const Endpoint& source, TimePoint now);
    // The identity is that of the requester's key; empty if it proved none.
    void OnRequest(const CoapMessage& message, const Endpoint& source, in_addr_t localHost, ReplyPath path,
                   TimePoint now, const std::string& identity = std::string());
    void OnAnswer(ConversationId conversation, const CoapMessage& answer, TimePoint now);
    void OnRefused(ConversationId conversation, TimePoint now);
    void OnUnacknowledged(ConversationId conversation, std::uint16_t messageId, TimePoint now) {
        mClient.OnUnacknowledged(conversation, messageId, now);
    }
    // The first message waited for a DTLS handshake and has left now.
    void OnReached(ConversationId conversation, TimePoint now) { mClient.OnReached(conversation, now); }

    void Tick(TimePoint now);
    TimePoint NextDeadline(TimePoint now) const;
    // Whether this node knows so many others that their hellos may be passed on together.
    bool IsInCrowd() const { return mPresence.Directory().IsCrowd(); }

private:
    void Describe(const CoapMessage& request, in_addr_t localHost, ReplyPath path, TimePoint now);
    void PassEvents(TimePoint now);

    // Forwards to another Network, and charges replies to the answer budget of their receiver.
    class MeteredNetwork : public Network {
    public:
        MeteredNetwork(Network& network, Presence& presence) : mNetwork(network), mPresence(presence) {}
        // Must be called before the first reply by that path.
        void Begin(ReplyPath path, in_addr_t host) { mPaths[path] = host; }

        void Send(const LocalInterface& via, const Endpoint& to, const CoapMessage& message) override {
            mNetwork.Send(via, to, message);
        }
        void Transmit(ConversationId conversation, const Endpoint& to, const CoapMessage& message) override {
            mNetwork.Transmit(conversation, to, message);
        }
        void CloseConversation(ConversationId conversation) override {
            mNetwork.CloseConversation(conversation);
        }
        void OnPeerGone(const Endpoint& endpoint) override { mNetwork.OnPeerGone(endpoint); }
        void Reply(ReplyPath path, const CoapMessage& message) override;
        void Forget(ReplyPath path) override;
        bool IsClogged() const override { return mNetwork.IsClogged(); }

    private:
        Network& mNetwork;
        Presence& mPresence;
        std::map<ReplyPath, in_addr_t> mPaths;
    };

    Application& mApplication;
    Network& mNetwork;
    LocalNode mLocalNode;
    IdSource mIdSource;
    UnansweredPeers mUnanswered;
    Presence mPresence;
    MeteredNetwork mReplies;
    Discovery mDiscovery;
    RequestClient mClient;
    RequestServer mServer;
};

}  // namespace lumora_link
