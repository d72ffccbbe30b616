#include "platform/link/core/secured_sessions.h"

#include <algorithm>

#include "platform/link/wire/messages.h"

namespace lumora_link {

namespace {

// Asking who is there changes nothing; it may be asked again by any session.
bool IsRequest(const CoapMessage& message) { return PathOf(message) != WELL_KNOWN_PATH; }

bool IsDoubtful(const std::optional<TimePoint>& askedSince, TimePoint now) {
    return askedSince && now - *askedSince >= SecuredSessions::DOUBT_AFTER;
}

}  // namespace

void SecuredSessions::Transmit(ConversationId conversation, const Endpoint& to, const CoapMessage& message,
                               TimePoint now) {
    Conversation& own = mConversations[conversation];
    own.to = to;
    if (own.tokens.insert(message.token).second) {
        mTokens[message.token] = conversation;
    }
    SessionId id = own.session.value_or(0);
    if (own.session) {
        const auto bound = mSessions.find(id);
        if (bound != mSessions.end() && bound->second.state == State::CONNECTED) {
            Write(id, bound->second, conversation, message, now);
        }
    } else if (Session* session = SessionFor(message, to, now, id)) {
        const bool doubtful = IsDoubtful(session->askedSince, now);
        Write(id, *session, conversation, message, now);
        if (doubtful) {
            Try(to, now);
        }
    } else {
        own.waiting[message.token] = message;
        Try(to, now);
    }
}

void SecuredSessions::CloseConversation(ConversationId conversation) {
    const auto at = mConversations.find(conversation);
    if (at == mConversations.end()) {
        return;
    }
    for (const std::string& token : at->second.tokens) {
        mTokens.erase(token);
    }
    const auto session = at->second.session ? mSessions.find(*at->second.session) : mSessions.end();
    if (session != mSessions.end()) {
        session->second.bound.erase(conversation);
    }
    mConversations.erase(at);
}

void SecuredSessions::OnPeerGone(const Endpoint& endpoint, TimePoint now) {
    for (auto& [id, session] : mSessions) {
        const bool answersNow = !session.askedSince && now - session.used < DOUBT_AFTER;
        if (session.to == endpoint && session.state == State::CONNECTED && !answersNow) {
            session.state = State::FAILED;
        }
    }
}

void SecuredSessions::OnConnected(SessionId session, TimePoint now) {
    const auto at = mSessions.find(session);
    if (at == mSessions.end() || at->second.state != State::HANDSHAKE) {
        return;
    }
    at->second.state = State::CONNECTED;
    at->second.used = now;
    at->second.askedSince.reset();
    const Endpoint to = at->second.to;
    Flush(to, now);
}

std::optional<ConversationId> SecuredSessions::OnAnswer(SessionId session, const std::string& token,
                                                        TimePoint now) {
    const auto at = mSessions.find(session);
    if (at == mSessions.end() || at->second.state != State::CONNECTED) {
        return std::nullopt;
    }
    const bool wasDoubtful = IsDoubtful(at->second.askedSince, now);
    at->second.used = now;
    at->second.askedSince.reset();
    at->second.unanswered -= std::min(at->second.unanswered, 1U);
    const Endpoint from = at->second.to;
    if (wasDoubtful) {
        Flush(from, now);
    }
    const auto asked = mTokens.find(token);
    if (asked == mTokens.end() || mConversations.at(asked->second).to != from) {
        return std::nullopt;
    }
    return asked->second;
}

void SecuredSessions::OnFailed(SessionId session, bool refused) {
    const auto at = mSessions.find(session);
    if (at != mSessions.end() && at->second.state != State::REFUSED) {
        at->second.state = refused ? State::REFUSED : State::FAILED;
    }
}

void SecuredSessions::Retire(SessionId session) {
    const auto at = mSessions.find(session);
    if (at != mSessions.end()) {
        at->second.retired = true;
    }
}

void SecuredSessions::Tick(TimePoint now) {
    for (auto at = mSessions.begin(); at != mSessions.end();) {
        const bool failed = at->second.state == State::FAILED || at->second.state == State::REFUSED;
        if (failed) {
            EndFailed(at->second);
        }
        at = failed || IsOver(at->first, at->second, now) ? Close(at) : std::next(at);
    }
    const std::set<Endpoint> awaited = Awaited();
    for (auto at = mTried.begin(); at != mTried.end();) {
        at = now - at->second >= RETRY && awaited.count(at->first) == 0 ? mTried.erase(at) : std::next(at);
    }
    for (const Endpoint& to : awaited) {
        Try(to, now);
    }
}

// Idle sessions need no deadline of their own: the node's hellos come more often.
TimePoint SecuredSessions::NextDeadline() const {
    TimePoint next = TimePoint::max();
    for (const Endpoint& to : Awaited()) {
        const auto tried = mTried.find(to);
        next = tried == mTried.end() ? TimePoint() : std::min(next, tried->second + RETRY);
    }
    return next;
}

SecuredSessions::Session* SecuredSessions::SessionFor(const CoapMessage& message, const Endpoint& to,
                                                      TimePoint now, SessionId& id) {
    for (auto at = mSessions.rbegin(); at != mSessions.rend(); ++at) {
        Session& session = at->second;
        const bool trusted = !IsDoubtful(session.askedSince, now) || !IsRequest(message);
        if (session.to == to && trusted && IsUsable(session, now)) {
            id = at->first;
            return &session;
        }
    }
    return nullptr;
}

bool SecuredSessions::IsUsable(const Session& session, TimePoint now) const {
    return session.state == State::CONNECTED && !session.retired && now - session.used < IDLE &&
           now - session.begun < OLDEST && session.unanswered < MAX_UNANSWERED;
}

void SecuredSessions::Write(SessionId id, Session& session, ConversationId conversation,
                            const CoapMessage& message, TimePoint now) {
    session.used = now;
    if (!session.askedSince) {
        session.askedSince = now;
    }
    ++session.unanswered;
    if (IsRequest(message)) {
        session.bound.insert(conversation);
        mConversations.at(conversation).session = id;
    }
    mCarrier.Write(id, message);
}

void SecuredSessions::Flush(const Endpoint& to, TimePoint now) {
    for (auto& [conversation, own] : mConversations) {
        if (own.to != to || own.waiting.empty()) {
            continue;
        }
        std::map<std::string, CoapMessage> waiting;
        waiting.swap(own.waiting);
        for (const auto& [token, message] : waiting) {
            Transmit(conversation, to, message, now);
        }
        if (own.waiting.empty()) {
            mCarrier.OnReached(conversation);
        }
    }
}

// Whichever is heard first will be used: the session that fell silent, or a new one.
void SecuredSessions::Try(const Endpoint& to, TimePoint now) {
    const auto [tried, isNew] = mTried.try_emplace(to, now);
    if (!isNew && now - tried->second < RETRY) {
        return;
    }
    tried->second = now;
    std::size_t handshakes = 0;
    for (auto& [id, session] : mSessions) {
        if (session.to != to) {
            continue;
        }
        handshakes += session.state == State::HANDSHAKE;
        if (IsUsable(session, now)) {
            ++session.unanswered;
            mCarrier.Probe(id);
        }
    }
    if (handshakes >= MAX_HANDSHAKES || !MakeRoom()) {
        return;
    }
    const SessionId id = ++mLastSession;
    Session& session = mSessions[id];
    session.to = to;
    session.begun = session.used = now;
    if (mCarrier.Open(id, to)) {
        // It leaves when the handshake is done; a port that refuses is reported for it.
        mCarrier.Probe(id);
    } else {
        mSessions.erase(id);
    }
}

bool SecuredSessions::MakeRoom() {
    if (mSessions.size() < MAX_SESSIONS) {
        return true;
    }
    auto oldest = mSessions.end();
    for (auto at = mSessions.begin(); at != mSessions.end(); ++at) {
        const bool idle = at->second.state == State::CONNECTED && at->second.bound.empty();
        if (idle && (oldest == mSessions.end() || at->second.used < oldest->second.used)) {
            oldest = at;
        }
    }
    if (oldest == mSessions.end()) {
        return false;
    }
    Close(oldest);
    return true;
}

std::set<Endpoint> SecuredSessions::Awaited() const {
    std::set<Endpoint> awaited;
    for (const auto& [id, conversation] : mConversations) {
        if (!conversation.waiting.empty()) {
            awaited.insert(conversation.to);
        }
    }
    return awaited;
}

void SecuredSessions::EndFailed(const Session& session) {
    for (const auto& [id, conversation] : mConversations) {
        const bool nobodyListens = session.state == State::REFUSED && conversation.to == session.to;
        if (nobodyListens || session.bound.count(id) != 0) {
            mCarrier.OnRefused(id);
        }
    }
}

bool SecuredSessions::IsOver(SessionId id, const Session& session, TimePoint now) const {
    const bool superseded = std::any_of(mSessions.upper_bound(id), mSessions.end(), [&](const auto& other) {
        return other.second.to == session.to && other.second.state == State::CONNECTED;
    });
    if (session.state == State::HANDSHAKE) {
        const bool connected = std::any_of(mSessions.begin(), mSessions.end(), [&](const auto& other) {
            return other.second.to == session.to && other.second.state == State::CONNECTED &&
                   !other.second.retired && !IsDoubtful(other.second.askedSince, now);
        });
        return connected || now - session.begun >= HANDSHAKE;
    }
    return session.bound.empty() && (superseded || !IsUsable(session, now));
}

SecuredSessions::Sessions_t::iterator SecuredSessions::Close(Sessions_t::iterator session) {
    mCarrier.Close(session->first);
    return mSessions.erase(session);
}

}  // namespace lumora_link
