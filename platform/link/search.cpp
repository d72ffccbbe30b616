#include "search.h"

#include <algorithm>
#include <array>

namespace lumora_link {

namespace {

// The probes at 0 and 100 ms with their copies, then those for a network that loses datagrams.
constexpr std::array<Milliseconds, 9> kProbes = {Milliseconds(0),   Milliseconds(30),  Milliseconds(100),
                                                 Milliseconds(130), Milliseconds(300), Milliseconds(350),
                                                 Milliseconds(400), Milliseconds(450), Milliseconds(500)};
constexpr unsigned kReminder = 2;
constexpr unsigned kFirstRescue = 4;
constexpr unsigned kAllRegular = (1U << kFirstRescue) - 1;

}  // namespace

Search::Search(std::string deviceType, std::set<std::uint64_t> expected, TimePoint now)
    : deviceType_(std::move(deviceType)), expected_(std::move(expected)), start_(now), lastNew_(now) {}

std::optional<unsigned> Search::TakeDueProbe(TimePoint now) {
    if (nextProbe_ >= kProbes.size() || now < start_ + kProbes[nextProbe_]) {
        return std::nullopt;
    }
    return nextProbe_++;
}

bool Search::IsRescue(unsigned probe) const { return probe >= kFirstRescue; }

bool Search::IsReminder(unsigned probe) const { return probe == kReminder; }

void Search::OnAnswer(unsigned probe, const NodeDescription& node, TimePoint now) {
    if (probe >= nextProbe_ || node.deviceType != deviceType_) {
        return;
    }
    const auto [at, isNew] = found_.emplace(node.identity.id, node);
    if (isNew) {
        lastNew_ = now;
    }
    answered_[node.identity.id] |= 1U << probe;
}

bool Search::IsOver(TimePoint now) const {
    if (now >= start_ + kLongest) {
        return true;
    }
    const bool asked = nextProbe_ >= kFirstRescue;
    return asked && now >= QuietSince() && !found_.empty() && Missing().empty() &&
           EverybodyAnsweredEverything();
}

TimePoint Search::NextDeadline(TimePoint now) const {
    TimePoint next = start_ + kLongest;
    if (nextProbe_ < kProbes.size()) {
        next = std::min(next, start_ + kProbes[nextProbe_]);
    }
    if (nextProbe_ >= kFirstRescue && QuietSince() > now) {
        next = std::min(next, QuietSince());
    }
    return next;
}

TimePoint Search::QuietSince() const {
    return std::max(lastNew_, start_ + kProbes[kFirstRescue - 1]) + kQuiet;
}

std::vector<NodeHint> Search::Known() const {
    std::vector<NodeHint> hints;
    for (const auto& [id, node] : found_) {
        hints.push_back(HintOf(id));
    }
    return hints;
}

std::set<std::uint64_t> Search::Missing() const {
    std::set<std::uint64_t> missing;
    for (const std::uint64_t id : expected_) {
        if (found_.count(id) == 0) {
            missing.insert(id);
        }
    }
    return missing;
}

bool Search::EverybodyAnsweredEverything() const {
    return std::all_of(answered_.begin(), answered_.end(),
                       [](const auto& node) { return (node.second & kAllRegular) == kAllRegular; });
}

}  // namespace lumora_link
