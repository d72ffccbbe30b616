#include "secured_sessions.h"

#include <algorithm>

#include "messages.h"

namespace lumora_link {

namespace {

// Asking who is there changes nothing; it may be asked again by any session.
bool IsRequest(const CoapMessage& message) { return PathOf(message) != kWellKnownPath; }

bool IsDoubtful(const std::optional<TimePoint>& askedSince, TimePoint now) {
    return askedSince && now - *askedSince >= SecuredSessions::kDoubtAfter;
}

}  // namespace

void SecuredSessions::Transmit(ConversationId conversation, const Endpoint& to, const CoapMessage& message,
                               TimePoint now) {
    Conversation& own = conversations_[conversation];
    own.to = to;
    if (own.tokens.insert(message.token).second) {
        tokens_[message.token] = conversation;
    }
    SessionId id = own.session.value_or(0);
    if (own.session) {
        const auto bound = sessions_.find(id);
        if (bound != sessions_.end() && bound->second.state == State::kConnected) {
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

void SecuredSessions::Hang(ConversationId conversation) {
    const auto at = conversations_.find(conversation);
    if (at == conversations_.end()) {
        return;
    }
    for (const std::string& token : at->second.tokens) {
        tokens_.erase(token);
    }
    const auto session = at->second.session ? sessions_.find(*at->second.session) : sessions_.end();
    if (session != sessions_.end()) {
        session->second.bound.erase(conversation);
    }
    conversations_.erase(at);
}

void SecuredSessions::OnPeerGone(const Endpoint& endpoint, TimePoint now) {
    for (auto& [id, session] : sessions_) {
        const bool answersNow = !session.askedSince && now - session.used < kDoubtAfter;
        if (session.to == endpoint && session.state == State::kConnected && !answersNow) {
            session.state = State::kFailed;
        }
    }
}

void SecuredSessions::OnConnected(SessionId session, TimePoint now) {
    const auto at = sessions_.find(session);
    if (at == sessions_.end() || at->second.state != State::kHandshake) {
        return;
    }
    at->second.state = State::kConnected;
    at->second.used = now;
    at->second.askedSince.reset();
    const Endpoint to = at->second.to;
    Flush(to, now);
}

std::optional<ConversationId> SecuredSessions::OnAnswer(SessionId session, const std::string& token,
                                                        TimePoint now) {
    const auto at = sessions_.find(session);
    if (at == sessions_.end() || at->second.state != State::kConnected) {
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
    const auto asked = tokens_.find(token);
    if (asked == tokens_.end() || conversations_.at(asked->second).to != from) {
        return std::nullopt;
    }
    return asked->second;
}

void SecuredSessions::OnFailed(SessionId session, bool refused) {
    const auto at = sessions_.find(session);
    if (at != sessions_.end() && at->second.state != State::kRefused) {
        at->second.state = refused ? State::kRefused : State::kFailed;
    }
}

void SecuredSessions::Tick(TimePoint now) {
    for (auto at = sessions_.begin(); at != sessions_.end();) {
        const bool failed = at->second.state == State::kFailed || at->second.state == State::kRefused;
        if (failed) {
            EndFailed(at->second);
        }
        at = failed || IsOver(at->first, at->second, now) ? Close(at) : std::next(at);
    }
    const std::set<Endpoint> awaited = Awaited();
    for (auto at = tried_.begin(); at != tried_.end();) {
        at = now - at->second >= kRetry && awaited.count(at->first) == 0 ? tried_.erase(at) : std::next(at);
    }
    for (const Endpoint& to : awaited) {
        Try(to, now);
    }
}

// Idle sessions need no deadline of their own: the node's hellos come more often.
TimePoint SecuredSessions::NextDeadline() const {
    TimePoint next = TimePoint::max();
    for (const Endpoint& to : Awaited()) {
        const auto tried = tried_.find(to);
        next = tried == tried_.end() ? TimePoint() : std::min(next, tried->second + kRetry);
    }
    return next;
}

SecuredSessions::Session* SecuredSessions::SessionFor(const CoapMessage& message, const Endpoint& to,
                                                      TimePoint now, SessionId& id) {
    for (auto at = sessions_.rbegin(); at != sessions_.rend(); ++at) {
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
    return session.state == State::kConnected && now - session.used < kIdle &&
           now - session.begun < kOldest && session.unanswered < kMaxUnanswered;
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
        conversations_.at(conversation).session = id;
    }
    carrier_.Write(id, message);
}

void SecuredSessions::Flush(const Endpoint& to, TimePoint now) {
    for (auto& [conversation, own] : conversations_) {
        if (own.to != to || own.waiting.empty()) {
            continue;
        }
        std::map<std::string, CoapMessage> waiting;
        waiting.swap(own.waiting);
        for (const auto& [token, message] : waiting) {
            Transmit(conversation, to, message, now);
        }
        if (own.waiting.empty()) {
            carrier_.OnReached(conversation);
        }
    }
}

// Whichever is heard first will be used: the session that fell silent, or a new one.
void SecuredSessions::Try(const Endpoint& to, TimePoint now) {
    const auto [tried, isNew] = tried_.try_emplace(to, now);
    if (!isNew && now - tried->second < kRetry) {
        return;
    }
    tried->second = now;
    std::size_t handshakes = 0;
    for (auto& [id, session] : sessions_) {
        if (session.to != to) {
            continue;
        }
        handshakes += session.state == State::kHandshake;
        if (IsUsable(session, now)) {
            ++session.unanswered;
            carrier_.Probe(id);
        }
    }
    if (handshakes >= kMaxHandshakes || !MakeRoom()) {
        return;
    }
    const SessionId id = ++lastSession_;
    Session& session = sessions_[id];
    session.to = to;
    session.begun = session.used = now;
    if (carrier_.Open(id, to)) {
        // It leaves when the handshake is done; a port that refuses is reported for it.
        carrier_.Probe(id);
    } else {
        sessions_.erase(id);
    }
}

bool SecuredSessions::MakeRoom() {
    if (sessions_.size() < kMaxSessions) {
        return true;
    }
    auto oldest = sessions_.end();
    for (auto at = sessions_.begin(); at != sessions_.end(); ++at) {
        const bool idle = at->second.state == State::kConnected && at->second.bound.empty();
        if (idle && (oldest == sessions_.end() || at->second.used < oldest->second.used)) {
            oldest = at;
        }
    }
    if (oldest == sessions_.end()) {
        return false;
    }
    Close(oldest);
    return true;
}

std::set<Endpoint> SecuredSessions::Awaited() const {
    std::set<Endpoint> awaited;
    for (const auto& [id, conversation] : conversations_) {
        if (!conversation.waiting.empty()) {
            awaited.insert(conversation.to);
        }
    }
    return awaited;
}

void SecuredSessions::EndFailed(const Session& session) {
    for (const auto& [id, conversation] : conversations_) {
        const bool nobodyListens = session.state == State::kRefused && conversation.to == session.to;
        if (nobodyListens || session.bound.count(id) != 0) {
            carrier_.OnRefused(id);
        }
    }
}

bool SecuredSessions::IsOver(SessionId id, const Session& session, TimePoint now) const {
    const bool superseded = std::any_of(sessions_.upper_bound(id), sessions_.end(), [&](const auto& other) {
        return other.second.to == session.to && other.second.state == State::kConnected;
    });
    if (session.state == State::kHandshake) {
        const bool connected = std::any_of(sessions_.begin(), sessions_.end(), [&](const auto& other) {
            return other.second.to == session.to && other.second.state == State::kConnected &&
                   !IsDoubtful(other.second.askedSince, now);
        });
        return connected || now - session.begun >= kHandshake;
    }
    return session.bound.empty() && (superseded || !IsUsable(session, now));
}

SecuredSessions::Sessions_t::iterator SecuredSessions::Close(Sessions_t::iterator session) {
    carrier_.Close(session->first);
    return sessions_.erase(session);
}

}  // namespace lumora_link
