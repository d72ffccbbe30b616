// One search of the network: when to ask again, what is known so far, when it is over.
//
// Each probe is sent twice, because a lost one costs a device. While every device answers every
// copy, the network is taken for sound and the search ends early. Where some answers are missing,
// further copies follow, which name the devices already found so that only the others answer.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "messages.h"
#include "types.h"

namespace lumora_link {

class Search {
public:
    static constexpr Milliseconds kLongest{600};
    static constexpr Milliseconds kQuiet{100};

    // The expected nodes are known to be there and to match.
    Search(std::string deviceType, std::set<std::uint64_t> expected, TimePoint now);

    // The number of the probe copy that is due, once.
    std::optional<unsigned> TakeDueProbe(TimePoint now);
    bool IsRescue(unsigned probe) const;
    // When this probe is due, whoever is there has had the time to answer an earlier one.
    bool IsReminder(unsigned probe) const;
    void OnAnswer(unsigned probe, const NodeDescription& node, TimePoint now);

    bool IsOver(TimePoint now) const;
    TimePoint NextDeadline(TimePoint now) const;

    const std::string& DeviceType() const { return deviceType_; }
    std::vector<NodeHint> Known() const;
    // Those expected who have not answered.
    std::set<std::uint64_t> Missing() const;
    // The node turned out to be gone: not expected any more.
    void Dismiss(std::uint64_t nodeId) { expected_.erase(nodeId); }
    const std::map<std::uint64_t, NodeDescription>& Found() const { return found_; }

private:
    bool EverybodyAnsweredEverything() const;
    TimePoint QuietSince() const;

    const std::string deviceType_;
    std::set<std::uint64_t> expected_;
    const TimePoint start_;
    unsigned nextProbe_ = 0;
    TimePoint lastNew_;
    std::map<std::uint64_t, NodeDescription> found_;
    std::map<std::uint64_t, unsigned> answered_;  // bit n: to probe copy n
};

}  // namespace lumora_link
