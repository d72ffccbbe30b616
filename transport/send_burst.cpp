#include "transport/send_burst.h"

#include <algorithm>

namespace lumoraAiModule {

namespace {

#ifdef LUMORA_NO_SEND_BURSTS
constexpr bool IS_BUILT_IN = false;
#else
constexpr bool IS_BUILT_IN = true;
#endif

}  // namespace

// A frame after a pause begins a new burst and is not held back: a request that waits for its answer loses no
// time. A gap within a burst halves what has been counted, so one gap does not end a long burst, and a paced
// stream never becomes one.
bool SendBurst::MayHoldBack(unsigned int length, Clock::time_point now) {
    const Clock::duration gap = now - mLastSent;
    if (length > LARGEST_FRAME || gap > LONGEST_PAUSE) {
        mFrames = 0;
    } else if (gap > LONGEST_GAP) {
        mFrames /= 2;
    }
    const bool isFull =
        mHeldBack + length >= MOST_HELD_BACK || (mHeldBack > 0 && now - mHeldBackSince >= PUSH_AFTER);
    return IS_BUILT_IN && mFrames >= FRAMES_BEFORE && !isFull;
}

void SendBurst::OnSent(unsigned int length, bool heldBack, Clock::time_point now) {
    mFrames = length > LARGEST_FRAME ? 0 : std::min(mFrames + 1, 2 * FRAMES_BEFORE);
    if (heldBack && mHeldBack == 0) {
        mHeldBackSince = now;
    }
    mHeldBack = heldBack ? mHeldBack + length : 0;
    mLastSent = now;
}

}  // namespace lumoraAiModule
