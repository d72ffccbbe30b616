#include "platform/link/core/search.h"

#include <algorithm>
#include <array>

namespace lumora_link {

namespace {

// The probes at 0 and 100 ms with their copies, then those for a network that loses datagrams.
constexpr std::array<Milliseconds, 9> PROBES = {Milliseconds(0),   Milliseconds(30),  Milliseconds(100),
                                                Milliseconds(130), Milliseconds(300), Milliseconds(350),
                                                Milliseconds(400), Milliseconds(450), Milliseconds(500)};
constexpr Milliseconds SHORTEST_PAUSE{30};
constexpr unsigned REMINDER = 2;
constexpr unsigned FIRST_RESCUE = 4;
constexpr unsigned ALL_REGULAR = (1U << FIRST_RESCUE) - 1;

}  // namespace

Search::Search(std::string deviceType, std::set<std::uint64_t> expected, TimePoint now)
    : mDeviceType(std::move(deviceType)),
      mExpected(std::move(expected)),
      mStart(now),
      mLastProbe(now),
      mLastNew(now) {}

std::optional<unsigned> Search::TakeDueProbe(TimePoint now) {
    if (now < NextProbe()) {
        return std::nullopt;
    }
    mLastProbe = now;
    return mNextProbe++;
}

TimePoint Search::NextProbe() const {
    if (mNextProbe >= PROBES.size()) {
        return TimePoint::max();
    }
    return mNextProbe == 0 ? mStart : std::max(mStart + PROBES[mNextProbe], mLastProbe + SHORTEST_PAUSE);
}

bool Search::IsRescue(unsigned probe) const { return probe >= FIRST_RESCUE; }

bool Search::IsReminder(unsigned probe) const { return probe == REMINDER; }

void Search::OnAnswer(unsigned probe, const NodeDescription& node, TimePoint now) {
    if (probe >= mNextProbe || node.deviceType != mDeviceType) {
        return;
    }
    const auto [at, isNew] = mFound.emplace(node.identity.id, node);
    if (isNew) {
        mLastNew = now;
    }
    mAnswered[node.identity.id] |= 1U << probe;
}

bool Search::IsOver(TimePoint now) const {
    if (now >= End()) {
        return true;
    }
    const bool asked = mNextProbe >= FIRST_RESCUE;
    return asked && now >= QuietSince() && !mFound.empty() && Missing().empty() &&
           EverybodyAnsweredEverything();
}

TimePoint Search::NextDeadline(TimePoint now) const {
    TimePoint next = std::min(End(), NextProbe());
    if (mNextProbe >= FIRST_RESCUE && QuietSince() > now) {
        next = std::min(next, QuietSince());
    }
    return next;
}

TimePoint Search::End() const {
    const TimePoint answered = std::max(mLastProbe, mLastNew) + QUIET;
    return std::min(std::max(mStart + LONGEST, answered), mStart + LONGEST_ON_A_BUSY_HOST);
}

TimePoint Search::QuietSince() const { return std::max(mLastNew, mStart + PROBES[FIRST_RESCUE - 1]) + QUIET; }

std::vector<NodeHint> Search::Known() const {
    std::vector<NodeHint> hints;
    for (const auto& [id, node] : mFound) {
        hints.push_back(HintOf(id));
    }
    return hints;
}

std::set<std::uint64_t> Search::Missing() const {
    std::set<std::uint64_t> missing;
    for (const std::uint64_t id : mExpected) {
        if (mFound.count(id) == 0) {
            missing.insert(id);
        }
    }
    return missing;
}

bool Search::EverybodyAnsweredEverything() const {
    return std::all_of(mAnswered.begin(), mAnswered.end(),
                       [](const auto& node) { return (node.second & ALL_REGULAR) == ALL_REGULAR; });
}

}  // namespace lumora_link
