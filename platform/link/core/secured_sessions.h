// Which DTLS session carries which conversation, where nodes hold a key.
//
// A session begins with several exchanges of datagrams, so it is kept for the peer's next
// conversations. Lost datagrams of a handshake are repeated after a second only: while somebody
// waits, another handshake is begun beside it, and the first that succeeds is used.
//
// A request stays with the session that it was written to. Where that one fails, the peer may have
// been started again, and the new start would not know what the old one has run.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>

#include "platform/link/core/ports.h"
#include "platform/link/wire/types.h"

namespace lumora_link {

class SecuredSessions {
public:
    using SessionId = std::uint64_t;

    class Carrier {
    public:
        virtual ~Carrier() = default;
        // Begins a handshake. False where the system lacks the means.
        virtual bool Open(SessionId session, const Endpoint& to) = 0;
        // Asks the peer for a sign of life. What is written before the handshake ends follows it.
        virtual void Probe(SessionId session) = 0;
        virtual void Write(SessionId session, const CoapMessage& message) = 0;
        virtual void Close(SessionId session) = 0;
        // The conversation's first message has left.
        virtual void OnReached(ConversationId conversation) = 0;
        virtual void OnRefused(ConversationId conversation) = 0;
    };

    // Not used for that long: closed. Before the other end does so, which nobody may notice.
    static constexpr Milliseconds IDLE{20000};
    static constexpr Milliseconds OLDEST{300000};
    static constexpr Milliseconds HANDSHAKE{4000};
    static constexpr Milliseconds RETRY{300};
    // Asked that long ago and silent since: nothing is entrusted to it before it is heard again.
    static constexpr Milliseconds DOUBT_AFTER{300};
    static constexpr std::size_t MAX_HANDSHAKES = 4;  // with one peer
    static constexpr std::size_t MAX_SESSIONS = 128;
    // libcoap keeps each message until it is acknowledged or its session ends.
    static constexpr unsigned MAX_UNANSWERED = 500;

    explicit SecuredSessions(Carrier& carrier) : mCarrier(carrier) {}

    void Transmit(ConversationId conversation, const Endpoint& to, const CoapMessage& message, TimePoint now);
    void CloseConversation(ConversationId conversation);
    // The node that was there is gone; what may answer at its endpoint is another.
    void OnPeerGone(const Endpoint& endpoint, TimePoint now);

    void OnConnected(SessionId session, TimePoint now);
    // Whose answer it is, if anybody's.
    std::optional<ConversationId> OnAnswer(SessionId session, const std::string& token, TimePoint now);
    // Only takes note, so that Write may call it; Tick does the rest.
    void OnFailed(SessionId session, bool refused);
    // Its key is not valid any more: it serves the requests that left by it, and no others.
    void Retire(SessionId session);

    void Tick(TimePoint now);
    TimePoint NextDeadline() const;
    std::size_t Sessions() const { return mSessions.size(); }

private:
    enum class State { HANDSHAKE, CONNECTED, FAILED, REFUSED };

    struct Session {
        Endpoint to;
        State state = State::HANDSHAKE;
        TimePoint begun;
        TimePoint used;
        std::optional<TimePoint> askedSince;  // nothing was heard after that
        unsigned unanswered = 0;
        bool retired = false;
        std::set<ConversationId> bound;
    };
    struct Conversation {
        Endpoint to;
        std::optional<SessionId> session;
        std::map<std::string, CoapMessage> waiting;  // by token
        std::set<std::string> tokens;
    };
    using Sessions_t = std::map<SessionId, Session>;

    Session* SessionFor(const CoapMessage& message, const Endpoint& to, TimePoint now, SessionId& id);
    bool IsUsable(const Session& session, TimePoint now) const;
    void Write(SessionId id, Session& session, ConversationId conversation, const CoapMessage& message,
               TimePoint now);
    void Flush(const Endpoint& to, TimePoint now);
    void Try(const Endpoint& to, TimePoint now);
    bool MakeRoom();
    std::set<Endpoint> Awaited() const;
    void EndFailed(const Session& session);
    bool IsOver(SessionId id, const Session& session, TimePoint now) const;
    Sessions_t::iterator Close(Sessions_t::iterator session);

    Carrier& mCarrier;
    Sessions_t mSessions;
    SessionId mLastSession = 0;
    std::map<ConversationId, Conversation> mConversations;
    std::map<std::string, ConversationId> mTokens;
    std::map<Endpoint, TimePoint> mTried;
};

}  // namespace lumora_link
