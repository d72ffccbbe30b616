#include "platform/link/core/search.h"

#include <algorithm>
#include <array>
#include <iterator>

namespace lumora_link {

namespace {

// Two probes with a copy each, then those for a network that loses datagrams.
constexpr std::array<Milliseconds, 9> PROBES = {Milliseconds(0),   Milliseconds(10),  Milliseconds(100),
                                                Milliseconds(130), Milliseconds(300), Milliseconds(350),
                                                Milliseconds(400), Milliseconds(450), Milliseconds(500)};
// Many nodes spread their answers over 30 ms. The copy leaves afterwards, and is not needed if all have come.
constexpr Milliseconds COPY_AMONG_MANY{60};
// If counts of a few nodes tell that some are missing, these copies ask the missing ones. They are numbered
// behind the others, because nodes that were found do not answer them.
constexpr std::array<Milliseconds, 2> COPIES_FOR_MISSING = {Milliseconds(40), Milliseconds(165)};
constexpr Milliseconds SHORTEST_PAUSE{30};
constexpr unsigned COPY = 1;
constexpr unsigned REMINDER = 2;
constexpr unsigned FIRST_RESCUE = 4;
constexpr unsigned ALL_REGULAR = (1U << FIRST_RESCUE) - 1;

}  // namespace

Search::Search(std::string deviceType, const Knowledge& knowledge, TimePoint now)
    : mDeviceType(std::move(deviceType)),
      mExpected(knowledge.nodes),
      mDirected(knowledge.complete && !mExpected.empty() && mExpected.size() <= MOST_DIRECTED),
      mCounted(knowledge.counted),
      mStart(now),
      mLastProbe(now),
      mLastNew(now) {}

std::optional<unsigned> Search::TakeDueProbe(TimePoint now) {
    if (now >= NextCopyForMissing()) {
        mLastProbe = now;
        return static_cast<unsigned>(PROBES.size()) + mCopiesForMissing++;
    }
    if (now < NextProbe()) {
        return std::nullopt;
    }
    mLastProbe = now;
    return mNextProbe++;
}

TimePoint Search::NextCopyForMissing() const {
    const bool isMissing = mHighestCount <= FEW && mHighestCount > Counted() + mDismissed;
    if (!isMissing || mCopiesForMissing == COPIES_FOR_MISSING.size()) {
        return TimePoint::max();
    }
    return mStart + COPIES_FOR_MISSING[mCopiesForMissing];
}

bool Search::WasSent(unsigned probe) const {
    return probe < PROBES.size() ? probe < mNextProbe : probe < PROBES.size() + mCopiesForMissing;
}

Milliseconds Search::TimeOf(unsigned probe) const {
    if (probe != COPY) {
        return PROBES[probe];
    }
    if (mDirected) {
        return SHORTEST;
    }
    return mHighestCount > FEW ? COPY_AMONG_MANY : PROBES[COPY];
}

TimePoint Search::NextProbe() const {
    if (mNextProbe >= PROBES.size()) {
        return TimePoint::max();
    }
    const Milliseconds pause = mNextProbe > COPY ? SHORTEST_PAUSE : Milliseconds(0);
    return std::max(mStart + TimeOf(mNextProbe), mLastProbe + pause);
}

std::set<std::uint64_t> Search::AskedDirectly(unsigned probe) const {
    const bool asked = probe >= FIRST_RESCUE || (mDirected && probe == 0);
    return asked ? Missing() : std::set<std::uint64_t>();
}

std::vector<NodeHint> Search::Named(unsigned probe) const {
    std::vector<NodeHint> hints;
    if (probe >= FIRST_RESCUE) {
        for (const auto& [id, node] : mFound) {
            hints.push_back(HintOf(id));
        }
    } else if (mDirected && probe == 0) {
        std::transform(mExpected.begin(), mExpected.end(), std::back_inserter(hints), HintOf);
    }
    return hints;
}

bool Search::IsReminder(unsigned probe) const { return probe == REMINDER || (mDirected && probe == COPY); }

void Search::OnAnswer(unsigned probe, const NodeDescription& node, std::optional<std::uint32_t> count,
                      TimePoint now) {
    if (!WasSent(probe) || node.deviceType != mDeviceType) {
        return;
    }
    const auto [at, isNew] = mFound.try_emplace(node.identity.id);
    if (isNew) {
        mLastNew = now;
    }
    at->second.answered |= 1U << probe;
    at->second.count = count;
    mHighestCount = std::max(mHighestCount, count.value_or(0));
}

bool Search::IsOver(TimePoint now) const {
    if (now >= End()) {
        return true;
    }
    if (mFound.empty() || IsMissingAny()) {
        return false;
    }
    if (now >= mStart + Shortest() && CountsAgree()) {
        return true;
    }
    return mNextProbe >= FIRST_RESCUE && now >= QuietSince() && AllAnswered(ALL_REGULAR);
}

// Each of many nodes would have to have missed the hellos of one that was not found. A few nodes could have:
// the network must not have lost any datagram of this search either.
bool Search::CountsAgree() const {
    const std::size_t least = Counted();
    bool any = false;
    for (const auto& [id, node] : mFound) {
        if (node.count && (*node.count < least || *node.count > least + mDismissed)) {
            return false;
        }
        any = any || node.count;
    }
    return any && (mFound.size() > FEW || AllAnswered((1U << mNextProbe) - 1));
}

bool Search::AllAnswered(unsigned probes) const {
    return std::all_of(mFound.begin(), mFound.end(),
                       [=](const auto& node) { return (node.second.answered & probes) == probes; });
}

TimePoint Search::NextDeadline(TimePoint now) const {
    if (IsOver(now)) {
        return now;
    }
    TimePoint next = std::min({End(), NextProbe(), NextCopyForMissing()});
    for (const TimePoint mayBeOver : {mStart + Shortest(), QuietSince()}) {
        if (mayBeOver > now) {
            next = std::min(next, mayBeOver);
        }
    }
    return next;
}

TimePoint Search::End() const {
    const TimePoint answered = std::max(mLastProbe, mLastNew) + QUIET;
    return std::min(std::max(mStart + LONGEST, answered), mStart + LONGEST_ON_A_BUSY_HOST);
}

TimePoint Search::QuietSince() const { return std::max(mLastNew, mStart + PROBES[FIRST_RESCUE - 1]) + QUIET; }

bool Search::IsMissingAny() const {
    return std::any_of(mExpected.begin(), mExpected.end(),
                       [this](std::uint64_t id) { return !HasFound(id); });
}

std::set<std::uint64_t> Search::Missing() const {
    std::set<std::uint64_t> missing;
    std::copy_if(mExpected.begin(), mExpected.end(), std::inserter(missing, missing.end()),
                 [this](std::uint64_t id) { return !HasFound(id); });
    return missing;
}

}  // namespace lumora_link
