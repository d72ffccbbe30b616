#include "platform/link/core/request_table.h"

namespace lumora_link {

namespace {

constexpr Milliseconds SWEEP_INTERVAL{5000};

bool IsBefore(std::uint32_t a, std::uint32_t b) { return static_cast<std::int32_t>(a - b) < 0; }

std::size_t CostOf(const Outcome& answer) { return answer.payload.size(); }

}  // namespace

RequesterKey KeyOfRequester(const std::optional<Requester>& requester, const Endpoint& source) {
    if (!requester) {
        return {source.host, false, source.port, 0, 0};
    }
    return {source.host, true, requester->identity.id, requester->identity.instance, requester->secret};
}

RequestKey KeyFor(const CoapMessage& message, const std::optional<Requester>& requester,
                  const Endpoint& source) {
    return {KeyOfRequester(requester, source), message.messageId, message.token};
}

RequestTable::RequestTable(const Limits& limits)
    : mLimits(limits),
      mEntryQuota("requests", limits.entries, limits.entriesPerSource),
      mRequesterQuota("requesters", limits.requesters, limits.requestersPerSource) {}

RequestTable::Verdict RequestTable::Admit(const RequestKey& key, const std::optional<Requester>& requester,
                                          TimePoint now) {
    if (now - mLastSweep >= SWEEP_INTERVAL) {
        Sweep(now);
    }
    if (requester) {
        Advance(key.requester, requester->oldestOpen, now);
    }
    const auto known = mEntries.find(key);
    if (known != mEntries.end()) {
        return known->second.answer ? Verdict::ANSWERED : Verdict::PENDING;
    }
    if (requester && IsClosed(key, requester->sequence)) {
        return Verdict::STALE;
    }
    if (!MakeRoom(key.requester.host)) {
        return Verdict::FULL;
    }
    Entry entry;
    entry.sequence = requester ? requester->sequence : 0;
    entry.since = now;
    mEntries.emplace(key, std::move(entry));
    mEntryQuota.Enter(key.requester.host);
    return Verdict::NEW;
}

void RequestTable::Answer(const RequestKey& key, const Outcome& outcome, TimePoint now) {
    const auto known = mEntries.find(key);
    if (known == mEntries.end()) {
        return;
    }
    if (IsClosed(key, known->second.sequence)) {
        // The requester has given up meanwhile and will not ask for this answer.
        Erase(known);
        return;
    }
    mBytes += CostOf(outcome);
    known->second.answer = outcome;
    known->second.since = now;
    known->second.place = mAnswered.Add(key.requester.host, key);
}

const Outcome& RequestTable::StoredAnswer(const RequestKey& key) const { return *mEntries.at(key).answer; }

void RequestTable::Advance(const RequesterKey& requester, std::uint32_t oldestOpen, TimePoint now) {
    const auto known = mProgress.find(requester);
    if (known == mProgress.end()) {
        MakeRoomForRequester(requester.host);
        Progress& progress = mProgress[requester];
        progress.oldestOpen = oldestOpen;
        mRequesterQuota.Enter(requester.host);
        Touch(requester, progress, now);
        return;
    }
    Progress& progress = known->second;
    mHeard.Remove(requester.host, progress.place);
    Touch(requester, progress, now);
    if (IsBefore(progress.oldestOpen, oldestOpen)) {
        progress.oldestOpen = oldestOpen;
        DropClosed(requester);
    }
}

void RequestTable::Touch(const RequesterKey& requester, Progress& progress, TimePoint now) {
    progress.heard = now;
    progress.place = mHeard.Add(requester.host, requester);
}

// Foreign requesters have no progress and close nothing.
bool RequestTable::IsClosed(const RequestKey& key, std::uint32_t sequence) const {
    const auto at = mProgress.find(key.requester);
    return at != mProgress.end() && IsBefore(sequence, at->second.oldestOpen);
}

void RequestTable::DropClosed(const RequesterKey& requester) {
    auto at = mEntries.lower_bound({requester, 0, {}});
    while (at != mEntries.end() && !(requester < at->first.requester)) {
        const bool drop = at->second.answer && IsClosed(at->first, at->second.sequence);
        at = drop ? Erase(at) : std::next(at);
    }
}

// Only answered entries can go: a pending one's handler may be running.
bool RequestTable::MakeRoom(in_addr_t source) {
    for (;;) {
        auto yields = mEntryQuota.WhoYields(source);
        if (!yields && mBytes >= mLimits.bytes) {
            yields = mEntryQuota.Largest(source);
        }
        if (!yields) {
            return true;
        }
        mEntryQuota.OnBite(*yields);
        const RequestKey* oldest = mAnswered.Oldest(*yields);
        if (oldest == nullptr) {
            return false;
        }
        Erase(mEntries.find(*oldest));
    }
}

void RequestTable::MakeRoomForRequester(in_addr_t source) {
    while (const auto yields = mRequesterQuota.WhoYields(source)) {
        mRequesterQuota.OnBite(*yields);
        const RequesterKey* oldest = mHeard.Oldest(*yields);
        if (oldest == nullptr) {
            return;
        }
        Erase(mProgress.find(*oldest));
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
        at = old ? Erase(at) : std::next(at);
    }
}

RequestTable::Entries_t::iterator RequestTable::Erase(Entries_t::iterator entry) {
    const in_addr_t host = entry->first.requester.host;
    if (entry->second.answer) {
        mBytes -= CostOf(*entry->second.answer);
        mAnswered.Remove(host, entry->second.place);
    }
    mEntryQuota.Leave(host);
    return mEntries.erase(entry);
}

RequestTable::Progress_t::iterator RequestTable::Erase(Progress_t::iterator progress) {
    const in_addr_t host = progress->first.host;
    mHeard.Remove(host, progress->second.place);
    mRequesterQuota.Leave(host);
    return mProgress.erase(progress);
}

}  // namespace lumora_link
