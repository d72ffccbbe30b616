// One search of the network: when to ask again, what is known so far, when it is over.
//
// Each probe is sent twice, because a lost one costs a device. While every device answers every
// copy, the network is taken for sound and the search ends early. Where some answers are missing,
// further copies follow, which name the devices already found so that only the others answer.
//
// A busy host sends late and hears late. Probes that are overdue then leave one by one, and the search goes
// on while answers of new devices come: otherwise it would end before the answers to its last probes are
// read.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "platform/link/wire/messages.h"
#include "platform/link/wire/types.h"

namespace lumora_link {

class Search {
public:
    static constexpr Milliseconds LONGEST{600};
    static constexpr Milliseconds LONGEST_ON_A_BUSY_HOST{1000};
    // The answers to a probe come within this time.
    static constexpr Milliseconds QUIET{100};

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

    const std::string& DeviceType() const { return mDeviceType; }
    std::vector<NodeHint> Known() const;
    // Those expected who have not answered.
    std::set<std::uint64_t> Missing() const;
    // The node turned out to be gone: not expected any more.
    void Dismiss(std::uint64_t nodeId) { mExpected.erase(nodeId); }
    const std::map<std::uint64_t, NodeDescription>& Found() const { return mFound; }

private:
    bool EverybodyAnsweredEverything() const;
    TimePoint NextProbe() const;
    TimePoint QuietSince() const;
    TimePoint End() const;

    const std::string mDeviceType;
    std::set<std::uint64_t> mExpected;
    const TimePoint mStart;
    unsigned mNextProbe = 0;
    TimePoint mLastProbe;
    TimePoint mLastNew;
    std::map<std::uint64_t, NodeDescription> mFound;
    std::map<std::uint64_t, unsigned> mAnswered;  // bit n: to probe copy n
};

}  // namespace lumora_link
