// libcoap as the carrier of unicast messages: the node's own endpoints, where requests arrive, and
// one socket per conversation that this node began, or with a key one per session.
//
// libcoap brings the codec, the sessions and the acknowledgements. Repeating is left to our own
// code, because libcoap repeats after a second at the earliest and forgets what it has answered.
// A context of libcoap belongs to one thread; so does this.
#pragma once

#include <coap3/coap.h>

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <vector>

#include "platform/link/core/ports.h"
#include "platform/link/core/secured_sessions.h"
#include "platform/link/io/psk.h"
#include "platform/link/wire/types.h"

namespace lumora_link {

class CoapPort : private SecuredSessions::Carrier {
public:
    struct Listener {
        // The identity is that of the key by which the request came; empty if it came by none.
        std::function<void(const CoapMessage&, const Endpoint& source, in_addr_t localHost, ReplyPath path,
                           const std::string& identity)>
            onRequest;
        std::function<void(ConversationId, const CoapMessage&)> onAnswer;
        std::function<void(ConversationId)> onRefused;
        // See Network::UNACKNOWLEDGED.
        std::function<void(ConversationId, std::uint16_t messageId)> onUnacknowledged;
        // What was kept back until a session was there has been sent.
        std::function<void(ConversationId)> onReached;
        // With a key: told before onAnswer. The peer has answered by the key of that identity.
        std::function<void(const Endpoint& peer, const std::string& identity)> onProof = {};
    };

    explicit CoapPort(Listener listener);
    ~CoapPort() override;
    CoapPort(const CoapPort&) = delete;
    CoapPort& operator=(const CoapPort&) = delete;

    // Whether this library was built with DTLS.
    static bool CanSecure();
    // With keys every conversation uses DTLS, and the port serves the resource by DTLS only.
    bool Open(std::optional<KeyRing> keys);
    // From now on these. Sessions by others end as soon as the requests under way are answered.
    void UseKeys(KeyRing keys);
    // Only of a port that was opened with keys.
    const KeyRing& Keys() const { return *mKeys; }
    int Descriptor() const;
    // Serves that address too; one that is served already stays as it is.
    bool Listen(const Endpoint& endpoint);
    // Reads what has come. To be called when the descriptor is readable.
    void Process();
    // Lets go of what ended, outside of libcoap's own calls. To be called after every turn.
    void Settle();
    // When Settle is due at the latest.
    TimePoint NextDeadline() const { return mSessions.NextDeadline(); }

    void Transmit(ConversationId conversation, const Endpoint& to, const CoapMessage& message);
    void CloseConversation(ConversationId conversation);
    void OnPeerGone(const Endpoint& endpoint);
    void Reply(ReplyPath path, const CoapMessage& message);
    void Forget(ReplyPath path);
    bool IsClogged() const;

    // libcoap has one level for the whole process.
    static void SetLogLevel(int level);

private:
    struct ContextCloser {
        void operator()(coap_context_t* context) const { coap_free_context(context); }
    };
    // A socket of ours: a conversation's, or with a key a session's.
    using ChannelId = std::uint64_t;
    struct Channel {
        ChannelId id = 0;
        coap_session_t* session = nullptr;
        std::optional<std::uint16_t> watched;  // the message whose acknowledgement libcoap waits for
    };

    static void OnRequestOf(coap_resource_t* resource, coap_session_t* session, const coap_pdu_t* request,
                            const coap_string_t*, coap_pdu_t* response);
    static coap_response_t OnResponse(coap_session_t* session, const coap_pdu_t*, const coap_pdu_t* received,
                                      coap_mid_t);
    static void OnNack(coap_session_t* session, const coap_pdu_t*, coap_nack_reason_t reason, coap_mid_t);

    static int OnEvent(coap_session_t* session, coap_event_t event);
    static const coap_bin_const_t* KeyOf(coap_bin_const_t* identity, coap_session_t*, void* port);
    static const coap_dtls_cpsk_info_t* KeyForHint(coap_str_const_t* hint, coap_session_t*, void* port);

    bool ServeSecurely();
    bool IsSecured() const { return mKeys != nullptr; }
    bool HasValidKey(const coap_session_t* session) const;
    void EndRevoked();
    void TellProof(const coap_session_t* session) const;
    bool ListenBy(coap_proto_t protocol, const Endpoint& endpoint);
    bool Open(SecuredSessions::SessionId session, const Endpoint& to) override;
    void Probe(SecuredSessions::SessionId session) override;
    void Write(SecuredSessions::SessionId session, const CoapMessage& message) override;
    void Close(SecuredSessions::SessionId session) override { CloseChannel(session); }
    void OnReached(ConversationId conversation) override { mListener.onReached(conversation); }
    void OnRefused(ConversationId conversation) override { mRefused.push_back(conversation); }

    static ChannelId ChannelOf(const coap_session_t* session);
    bool AddResource(const char* path);
    coap_session_t* NewSession(const Endpoint& to);
    bool OpenChannel(ChannelId channel, const Endpoint& to);
    // False where the port was refused.
    bool Send(ChannelId channel, const CoapMessage& message);
    bool Watch(Channel& channel, const CoapMessage& message) const;
    void OnUnacknowledged(ChannelId channel, const coap_pdu_t* sent);
    void CloseChannel(ChannelId channel);
    void ReleaseEnded();

    const Listener mListener;
    std::unique_ptr<const KeyRing> mKeys;  // null without keys
    coap_bin_const_t mServedKey = {};      // what the last call of KeyOf returned
    coap_dtls_cpsk_info_t mChosenKey = {};
    std::unique_ptr<coap_context_t, ContextCloser> mContext;
    std::set<Endpoint> mEndpoints;
    std::vector<int> mEndpointSockets;  // libcoap's, without those that are not known
    std::map<ChannelId, std::unique_ptr<Channel>> mChannels;
    std::vector<std::unique_ptr<Channel>> mEnded;
    std::vector<ConversationId> mRefused;
    std::vector<std::pair<ConversationId, std::uint16_t>> mUnacknowledged;
    std::vector<ChannelId> mConnected;  // libcoap sends by them when it has returned from telling so
    SecuredSessions mSessions{*this};
    std::map<ReplyPath, coap_session_t*> mPaths;
    std::set<coap_session_t*> mServed;   // sessions that others began, by DTLS
    std::set<coap_session_t*> mRevoked;  // those of them whose key is not valid any more
    ReplyPath mLastPath = 0;
};

}  // namespace lumora_link
