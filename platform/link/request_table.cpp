#include "request_table.h"

namespace lumora_link {

namespace {

constexpr Milliseconds kSweepInterval{5000};

bool IsBefore(std::uint32_t a, std::uint32_t b) { return static_cast<std::int32_t>(a - b) < 0; }

std::size_t CostOf(const Outcome& answer) { return answer.payload.size(); }

}  // namespace

RequestKey KeyFor(const CoapMessage& message, const std::optional<Requester>& requester,
                  const Endpoint& source) {
    RequestKey key;
    key.messageId = message.messageId;
    key.token = message.token;
    if (requester) {
        key.node = requester->identity.id;
        key.instance = requester->identity.instance;
    } else {
        key.node = static_cast<std::uint64_t>(source.host) << 16 | source.port;
    }
    return key;
}

RequestTable::Verdict RequestTable::Admit(const RequestKey& key, const std::optional<Requester>& requester,
                                          TimePoint now) {
    if (now - lastSweep_ >= kSweepInterval) {
        Sweep(now);
    }
    if (requester && !Advance({key.node, key.instance}, requester->oldestOpen, now)) {
        return Verdict::kFull;
    }
    const auto known = entries_.find(key);
    if (known != entries_.end()) {
        return known->second.answer ? Verdict::kAnswered : Verdict::kPending;
    }
    if (requester && IsClosed(key, requester->sequence)) {
        return Verdict::kStale;
    }
    MakeRoomForForeign();
    if (entries_.size() >= limits_.entries || bytes_ >= limits_.bytes) {
        return Verdict::kFull;
    }
    Entry entry;
    entry.sequence = requester ? requester->sequence : 0;
    entry.numbered = requester.has_value();
    entry.since = now;
    entries_.emplace(key, std::move(entry));
    return Verdict::kNew;
}

void RequestTable::Answer(const RequestKey& key, const Outcome& outcome, TimePoint now) {
    const auto known = entries_.find(key);
    if (known == entries_.end()) {
        return;
    }
    if (known->second.numbered && IsClosed(key, known->second.sequence)) {
        // The requester has given up meanwhile and will not ask for this answer.
        Erase(known);
        return;
    }
    bytes_ += CostOf(outcome);
    known->second.answer = outcome;
    if (!known->second.numbered) {
        foreign_.push_back(key);
    }
    known->second.since = now;
}

const Outcome& RequestTable::StoredAnswer(const RequestKey& key) const { return *entries_.at(key).answer; }

// Invented requesters must find no room either: false where there is none for another.
bool RequestTable::Advance(const Start& start, std::uint32_t oldestOpen, TimePoint now) {
    if (progress_.size() >= limits_.requesters && progress_.count(start) == 0) {
        return false;
    }
    const auto [at, isNew] = progress_.try_emplace(start);
    Progress& progress = at->second;
    progress.heard = now;
    if (isNew || IsBefore(progress.oldestOpen, oldestOpen)) {
        progress.oldestOpen = oldestOpen;
        DropClosed(start);
    }
    return true;
}

bool RequestTable::IsClosed(const RequestKey& key, std::uint32_t sequence) const {
    const auto at = progress_.find({key.node, key.instance});
    return at != progress_.end() && IsBefore(sequence, at->second.oldestOpen);
}

void RequestTable::DropClosed(const Start& start) {
    RequestKey first;
    std::tie(first.node, first.instance) = start;
    auto at = entries_.lower_bound(first);
    while (at != entries_.end() && Start(at->first.node, at->first.instance) == start) {
        const bool drop =
            at->second.numbered && at->second.answer && IsClosed(at->first, at->second.sequence);
        at = drop ? Erase(at) : std::next(at);
    }
}

void RequestTable::MakeRoomForForeign() {
    while (foreign_.size() >= limits_.foreign) {
        const auto oldest = entries_.find(foreign_.front());
        if (oldest != entries_.end()) {
            Erase(oldest);
        }
        foreign_.pop_front();
    }
}

void RequestTable::Sweep(TimePoint now) {
    lastSweep_ = now;
    for (auto at = entries_.begin(); at != entries_.end();) {
        const bool old = at->second.answer && now - at->second.since >= limits_.age;
        at = old ? Erase(at) : std::next(at);
    }
    for (auto at = progress_.begin(); at != progress_.end();) {
        const bool old = now - at->second.heard >= 2 * limits_.age;
        at = old ? progress_.erase(at) : std::next(at);
    }
}

RequestTable::Entries_t::iterator RequestTable::Erase(Entries_t::iterator entry) {
    if (entry->second.answer) {
        bytes_ -= CostOf(*entry->second.answer);
    }
    return entries_.erase(entry);
}

}  // namespace lumora_link
