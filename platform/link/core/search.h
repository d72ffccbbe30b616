// One search of the network: when to send the next probe, what has been found, when the search is over.
//
// An answer may carry a count: how many nodes of the type its sender knows. When all counts agree with the
// number of nodes found, no answer is missing and the search ends after a few milliseconds. Without such
// agreement the search goes on: each probe is sent twice because a lost probe would cost a device. If every
// device has answered every copy, the network loses nothing and the search ends at 230 ms. Otherwise further
// copies follow. They name the devices found so far, so that only the others answer.
//
// A count only ends a search earlier. A false count that is too high costs the time of a search without
// counts. A false count that is too low hides no node that answers within SHORTEST.
//
// A busy host sends late and hears late. Overdue probes then leave one by one, and the search goes on while
// answers of new devices arrive. Otherwise it would end before the answers to its last probes are read.
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
    // A node that has just started is in no count yet. It has this time to answer.
    static constexpr Milliseconds SHORTEST{15};
    // The same for a directed search. Hellos have told the directory of new nodes before it began.
    static constexpr Milliseconds SHORTEST_DIRECTED{5};
    // So few nodes answer a probe without delay.
    static constexpr std::size_t FEW = 8;
    // A probe in one datagram cannot name more nodes.
    static constexpr std::size_t MOST_DIRECTED = MAX_KNOWN_NODES;

    struct Knowledge {
        // The directory knows that these nodes are there and that they match.
        std::set<std::uint64_t> nodes;
        // The directory has had the time to hear of every node.
        bool complete = false;
        // The searching node is itself of the type, so the others count it.
        bool counted = false;
    };

    Search(std::string deviceType, const Knowledge& knowledge, TimePoint now);

    // The number of the probe copy that is due, once.
    std::optional<unsigned> TakeDueProbe(TimePoint now);
    // The nodes to which this copy is also sent by unicast.
    std::set<std::uint64_t> AskedDirectly(unsigned probe) const;
    // The nodes that need not answer this copy when it comes to the group.
    std::vector<NodeHint> Named(unsigned probe) const;
    // When this probe is due, every live node has had the time to answer an earlier one.
    bool IsReminder(unsigned probe) const;
    void OnAnswer(unsigned probe, const NodeDescription& node, std::optional<std::uint32_t> count,
                  TimePoint now);

    bool IsOver(TimePoint now) const;
    // Not later than `now` once the search is over, so that the caller never waits past the end.
    TimePoint NextDeadline(TimePoint now) const;

    const std::string& DeviceType() const { return mDeviceType; }
    // The expected nodes that have not answered.
    std::set<std::uint64_t> Missing() const;
    bool IsMissingAny() const;
    // The node turned out to be gone. Other nodes may still count it.
    void Dismiss(std::uint64_t nodeId) { mDismissed += mExpected.erase(nodeId); }
    bool HasFound(std::uint64_t nodeId) const { return mFound.count(nodeId) != 0; }
    std::size_t Found() const { return mFound.size(); }

private:
    struct Answerer {
        unsigned answered = 0;               // bit n: probe copy n
        std::optional<std::uint32_t> count;  // the latest one
    };

    bool CountsAgree() const;
    bool AllAnswered(unsigned probes) const;
    Milliseconds Shortest() const { return mDirected ? SHORTEST_DIRECTED : SHORTEST; }
    Milliseconds TimeOf(unsigned probe) const;
    TimePoint NextProbe() const;
    TimePoint NextCopyForMissing() const;
    bool WasSent(unsigned probe) const;
    // How many nodes the others should count.
    std::size_t Counted() const { return mFound.size() + (mCounted ? 1 : 0); }
    TimePoint QuietSince() const;
    TimePoint End() const;

    const std::string mDeviceType;
    std::set<std::uint64_t> mExpected;
    const bool mDirected;
    const bool mCounted;
    const TimePoint mStart;
    unsigned mNextProbe = 0;
    unsigned mCopiesForMissing = 0;
    TimePoint mLastProbe;
    TimePoint mLastNew;
    std::map<std::uint64_t, Answerer> mFound;
    std::uint32_t mHighestCount = 0;
    std::size_t mDismissed = 0;
};

}  // namespace lumora_link
