// A new node's first look at the network, after which it may tell how many nodes of its type there are.
//
// A node that has listened for a while knows every node from its hello. A node that has just started knows
// none, so it asks for the nodes of its type: six times, because datagrams get lost. Then it knows them. In a
// crowd only a few of them answer, and they count for the new node as well.
//
// Each probe wakes every node of the network. While the new node itself searches, probes would delay the
// answers to that search, so the caller may take the next one later.
#pragma once

#include <optional>
#include <string>

#include "platform/link/wire/types.h"

namespace lumora_link {

class LookRound {
public:
    static constexpr unsigned PROBES = 6;
    static constexpr Milliseconds PAUSE{5};
    // The answers to a probe of a few nodes come within this time.
    static constexpr Milliseconds QUIET{15};

    // Begins anew. The token is the beginning of those of the probes.
    void Begin(std::string token, TimePoint now);
    // The number of the probe that is due, once. The pause to the next one begins when this one is taken.
    std::optional<unsigned> TakeDueProbe(TimePoint now);
    // Another node knows the network, so this one need not; or they are too many for a look.
    void End() { mIsOver = true; }
    // Whether every node that answers has done so, and none of them knew the network.
    bool HasSeenAll(TimePoint now) const;
    TimePoint NextProbe() const;

    const std::string& Token() const { return mToken; }

private:
    std::string mToken;
    TimePoint mNext{};
    TimePoint mLast{};
    unsigned mSent = PROBES;
    bool mIsOver = true;
};

}  // namespace lumora_link
