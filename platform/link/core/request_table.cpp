#include "platform/link/core/request_table.h"

namespace lumora_link {

namespace {

constexpr Milliseconds SWEEP_INTERVAL{5000};

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
    if (now - mLastSweep >= SWEEP_INTERVAL) {
        Sweep(now);
    }
    if (requester && !Advance({key.node, key.instance}, requester->oldestOpen, now)) {
        return Verdict::FULL;
    }
    const auto known = mEntries.find(key);
    if (known != mEntries.end()) {
        return known->second.answer ? Verdict::ANSWERED : Verdict::PENDING;
    }
    if (requester && IsClosed(key, requester->sequence)) {
        return Verdict::STALE;
    }
    MakeRoomForForeign();
    if (mEntries.size() >= mLimits.entries || mBytes >= mLimits.bytes) {
        return Verdict::FULL;
    }
    Entry entry;
    entry.sequence = requester ? requester->sequence : 0;
    entry.numbered = requester.has_value();
    entry.since = now;
    mEntries.emplace(key, std::move(entry));
    return Verdict::NEW;
}

void RequestTable::Answer(const RequestKey& key, const Outcome& outcome, TimePoint now) {
    const auto known = mEntries.find(key);
    if (known == mEntries.end()) {
        return;
    }
    if (known->second.numbered && IsClosed(key, known->second.sequence)) {
        // The requester has given up meanwhile and will not ask for this answer.
        Erase(known);
        return;
    }
    mBytes += CostOf(outcome);
    known->second.answer = outcome;
    if (!known->second.numbered) {
        mForeign.push_back(key);
    }
    known->second.since = now;
}

const Outcome& RequestTable::StoredAnswer(const RequestKey& key) const { return *mEntries.at(key).answer; }

// Invented requesters must find no room either: false where there is none for another.
bool RequestTable::Advance(const Start& start, std::uint32_t oldestOpen, TimePoint now) {
    if (mProgress.size() >= mLimits.requesters && mProgress.count(start) == 0) {
        return false;
    }
    const auto [at, isNew] = mProgress.try_emplace(start);
    Progress& progress = at->second;
    progress.heard = now;
    if (isNew || IsBefore(progress.oldestOpen, oldestOpen)) {
        progress.oldestOpen = oldestOpen;
        DropClosed(start);
    }
    return true;
}

bool RequestTable::IsClosed(const RequestKey& key, std::uint32_t sequence) const {
    const auto at = mProgress.find({key.node, key.instance});
    return at != mProgress.end() && IsBefore(sequence, at->second.oldestOpen);
}

void RequestTable::DropClosed(const Start& start) {
    RequestKey first;
    std::tie(first.node, first.instance) = start;
    auto at = mEntries.lower_bound(first);
    while (at != mEntries.end() && Start(at->first.node, at->first.instance) == start) {
        const bool drop =
            at->second.numbered && at->second.answer && IsClosed(at->first, at->second.sequence);
        at = drop ? Erase(at) : std::next(at);
    }
}

void RequestTable::MakeRoomForForeign() {
    while (mForeign.size() >= mLimits.foreign) {
        const auto oldest = mEntries.find(mForeign.front());
        if (oldest != mEntries.end()) {
            Erase(oldest);
        }
        mForeign.pop_front();
    }
}

void RequestTable::Sweep(TimePoint now) {
    mLastSweep = now;
    for (auto at = mEntries.begin(); at != mEntries.end();) {
        const bool old = at->second.answer && now - at->second.since >= mLimits.age;
        at = old ? Erase(at) : std::next(at);
    }
    for (auto at = mProgress.begin(); at != mProgress.end();) {
        const bool old = now - at->second.heard >= 2 * mLimits.age;
        at = old ? mProgress.erase(at) : std::next(at);
    }
}

RequestTable::Entries_t::iterator RequestTable::Erase(Entries_t::iterator entry) {
    if (entry->second.answer) {
        mBytes -= CostOf(*entry->second.answer);
    }
    return mEntries.erase(entry);
}

}  // namespace lumora_link
