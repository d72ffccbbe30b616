#include "platform/link/core/call_queue.h"

#include <algorithm>
#include <string_view>

namespace lumora_link {

namespace {

// The request by which a client opens the data channel. The only one whose duration the requester decides.
constexpr std::string_view SETUP_KEY = ".sys.mediaservice.setup";

bool IsForeignSetup(const HandlerCall& call) {
    return !call.sameHost && call.method == code::GET && call.key == SETUP_KEY;
}

}  // namespace

CallQueue::Admission CallQueue::Push(HandlerCall call, TimePoint now) {
    if (IsRefused(call, now)) {
        mQuota.OnBite(call.requester.host);
        return {};
    }
    if (SlowSourceOf(call, now) == nullptr) {
        mBusy = now;
    }
    Waiting* former = IsForeignSetup(call) ? WaitingSetup(call.requester.host) : nullptr;
    if (former != nullptr) {
        // The client has begun anew; the former setup would only be undone by this one.
        std::swap(former->call, call);
        return {true, call.ticket};
    }
    Admission admission;
    if (!MakeRoom(call, admission.dropped)) {
        return admission;
    }
    const in_addr_t source = call.requester.host;
    auto turn = TurnOf(source);
    if (turn == mTurns.end()) {
        turn = mTurns.insert(mTurns.end(), Turn{source, {}});
    }
    turn->calls.push_back({std::move(call), now});
    mQuota.Enter(source);
    admission.accepted = true;
    return admission;
}

// A slow source's setup first, if it has been delayed for long enough; then the others in their turns; then a
// slow source's, if it is quiet.
std::optional<HandlerCall> CallQueue::Pop(TimePoint now) {
    auto next = std::find_if(mTurns.begin(), mTurns.end(), [this, now](const Turn& turn) {
        return IsDelayed(turn, now) && now >= LongestDelayEnds(turn);
    });
    if (next == mTurns.end()) {
        next = std::find_if(mTurns.begin(), mTurns.end(),
                            [this, now](const Turn& turn) { return !IsDelayed(turn, now); });
    }
    if (next == mTurns.end() && now >= mBusy + QUIET) {
        next = mTurns.begin();
    }
    return next == mTurns.end() ? std::nullopt : std::make_optional(Take(next));
}

TimePoint CallQueue::NextStart(TimePoint now) const {
    TimePoint next = TimePoint::max();
    for (const Turn& turn : mTurns) {
        if (!IsDelayed(turn, now)) {
            return now;
        }
        next = std::min({next, mBusy + QUIET, LongestDelayEnds(turn)});
    }
    return next;
}

CallQueue::Dropped CallQueue::OnEnded(const HandlerCall& call, TimePoint began, TimePoint now) {
    const bool wasDelayed = SlowSourceOf(call, began) != nullptr;
    (wasDelayed ? mSlowEnded : mBusy) = now;
    const in_addr_t source = call.requester.host;
    if (!IsForeignSetup(call)) {
        return std::nullopt;
    }
    if (now - began < SLOW) {
        mSlow.erase(source);
        return std::nullopt;
    }
    NoteSlow(source, wasDelayed, now);
    return IsRefused(call, now) ? DropSetup(source) : std::nullopt;
}

void CallQueue::NoteSlow(in_addr_t source, bool again, TimePoint now) {
    for (auto at = mSlow.begin(); at != mSlow.end();) {
        at = now - at->second.last >= SLOW_REMEMBERED ? mSlow.erase(at) : std::next(at);
    }
    SlowSource& slow = mSlow[source];
    slow = {again ? slow.times + 1 : 1, now};
    mSlowEnded = now;
}

CallQueue::Turns::iterator CallQueue::TurnOf(in_addr_t source) {
    return std::find_if(mTurns.begin(), mTurns.end(),
                        [source](const Turn& turn) { return turn.source == source; });
}

// Null if the call is no setup, or not from a source whose last setup was slow.
const CallQueue::SlowSource* CallQueue::SlowSourceOf(const HandlerCall& call, TimePoint now) const {
    const auto slow = mSlow.find(call.requester.host);
    const bool known = slow != mSlow.end() && now - slow->second.last < SLOW_REMEMBERED;
    return known && IsForeignSetup(call) ? &slow->second : nullptr;
}

bool CallQueue::IsRefused(const HandlerCall& call, TimePoint now) const {
    const SlowSource* slow = SlowSourceOf(call, now);
    return slow != nullptr && slow->times >= 2 && now - slow->last < REFUSED;
}

CallQueue::Waiting* CallQueue::WaitingSetup(in_addr_t source) {
    const auto turn = TurnOf(source);
    if (turn == mTurns.end()) {
        return nullptr;
    }
    const auto setup = std::find_if(turn->calls.begin(), turn->calls.end(),
                                    [](const Waiting& waiting) { return IsForeignSetup(waiting.call); });
    return setup == turn->calls.end() ? nullptr : &*setup;
}

bool CallQueue::MakeRoom(const HandlerCall& call, Dropped& dropped) {
    const in_addr_t source = call.requester.host;
    const auto turn = TurnOf(source);
    const std::size_t share = call.sameHost ? MAX_CALLS_OF_OWN_HOST : MAX_CALLS_PER_SOURCE;
    if (turn != mTurns.end() && turn->calls.size() >= share) {
        mQuota.OnBite(source);
        return false;
    }
    const auto yields = mQuota.WhoYields(source);
    if (yields) {
        mQuota.OnBite(*yields);
        dropped = *yields == source ? std::nullopt : DropOldest(*yields);
    }
    return !yields || dropped;
}

CallQueue::Dropped CallQueue::DropOldest(in_addr_t source) { return Take(TurnOf(source)).ticket; }

CallQueue::Dropped CallQueue::DropSetup(in_addr_t source) {
    Waiting* setup = WaitingSetup(source);
    if (setup == nullptr) {
        return std::nullopt;
    }
    std::swap(*setup, TurnOf(source)->calls.front());
    return DropOldest(source);
}

bool CallQueue::IsDelayed(const Turn& turn, TimePoint now) const {
    return SlowSourceOf(turn.calls.front().call, now) != nullptr;
}

// Not at once after another slow setup: the other sources have had to wait for that one.
TimePoint CallQueue::LongestDelayEnds(const Turn& turn) const {
    return std::max(turn.calls.front().since, mSlowEnded) + LONGEST_DELAY;
}

// The first call of the source, whose next turn comes after those of all others.
HandlerCall CallQueue::Take(Turns::iterator turn) {
    HandlerCall call = std::move(turn->calls.front().call);
    turn->calls.pop_front();
    mQuota.Leave(turn->source);
    if (turn->calls.empty()) {
        mTurns.erase(turn);
    } else {
        mTurns.splice(mTurns.end(), mTurns, turn);
    }
    return call;
}

}  // namespace lumora_link
