// The requests that wait for the handlers, which run one at a time.
//
// Source addresses take turns, so that a flood from one address delays only that address. A media setup makes
// the device connect back to the requester, and for a silent requester that takes seconds. So a setup from an
// address whose last setup was slow waits until the other addresses are quiet, and is refused for a while
// after a second slow one.
#pragma once

#include <cstdint>
#include <deque>
#include <list>
#include <map>
#include <optional>

#include "platform/link/core/ports.h"
#include "platform/link/core/source_quota.h"

namespace lumora_link {

class CallQueue {
public:
    static constexpr std::size_t MAX_CALLS = 256;
    static constexpr std::size_t MAX_CALLS_PER_SOURCE = 4;
    // Processes on the node's own host share an address, and are no strangers.
    static constexpr std::size_t MAX_CALLS_OF_OWN_HOST = 64;
    // A connect on a local network takes milliseconds.
    static constexpr Milliseconds SLOW{2000};
    static constexpr Milliseconds SLOW_REMEMBERED{120000};
    // A client connects by several requests, one after the other. A slow setup must not begin between them.
    static constexpr Milliseconds QUIET{1000};
    // Others that are never quiet delay a slow source no longer than this; afterwards they have as long for
    // theirs.
    static constexpr Milliseconds LONGEST_DELAY{5000};
    static constexpr Milliseconds REFUSED{10000};

    // The ticket of the waiting call that will not run after all. It must be answered.
    using Dropped = std::optional<std::uint64_t>;

    struct Admission {
        bool accepted = false;
        Dropped dropped;
    };
    Admission Push(HandlerCall call, TimePoint now);
    // The call to run now, if any.
    std::optional<HandlerCall> Pop(TimePoint now);
    // When Pop may have a call though nothing new came.
    TimePoint NextStart(TimePoint now) const;
    // The call that Pop gave has run since `began`.
    Dropped OnEnded(const HandlerCall& call, TimePoint began, TimePoint now);

private:
    struct Waiting {
        HandlerCall call;
        TimePoint since;
    };
    struct Turn {
        in_addr_t source = 0;
        std::deque<Waiting> calls;  // never empty
    };
    using Turns = std::list<Turn>;
    struct SlowSource {
        unsigned times = 0;
        TimePoint last;
    };

    Turns::iterator TurnOf(in_addr_t source);
    const SlowSource* SlowSourceOf(const HandlerCall& call, TimePoint now) const;
    bool IsRefused(const HandlerCall& call, TimePoint now) const;
    Waiting* WaitingSetup(in_addr_t source);
    bool MakeRoom(const HandlerCall& call, Dropped& dropped);
    Dropped DropOldest(in_addr_t source);
    Dropped DropSetup(in_addr_t source);
    bool IsDelayed(const Turn& turn, TimePoint now) const;
    TimePoint LongestDelayEnds(const Turn& turn) const;
    void NoteSlow(in_addr_t source, bool again, TimePoint now);
    HandlerCall Take(Turns::iterator turn);

    Turns mTurns;
    SourceQuota mQuota{"waiting requests", MAX_CALLS, MAX_CALLS_OF_OWN_HOST};
    std::map<in_addr_t, SlowSource> mSlow;
    TimePoint mBusy{};       // when a call that is not from a slow source was last waiting or running
    TimePoint mSlowEnded{};  // when a slow setup last ended
};

}  // namespace lumora_link
