#include "transport/send_burst.h"

namespace lumoraAiModule {

namespace {

#ifdef LUMORA_NO_SEND_BURSTS
constexpr bool IS_BUILT_IN = false;
#else
constexpr bool IS_BUILT_IN = true;
#endif

}  // namespace

// A frame after a gap begins a new burst and is not held back: a request that waits for its answer loses no
// time.
bool SendBurst::MayHoldBack(unsigned int length, Clock::time_point now) {
    if (length > LARGEST_FRAME || now - mLastSent > LONGEST_GAP) {
        mFrames = 0;
    }
    return IS_BUILT_IN && mFrames >= FRAMES_BEFORE && mHeldBack + length < MOST_HELD_BACK;
}

void SendBurst::OnSent(unsigned int length, bool heldBack, Clock::time_point now) {
    mFrames = length > LARGEST_FRAME ? 0 : mFrames + 1;
    mHeldBack = heldBack ? mHeldBack + length : 0;
    mLastSent = now;
}

}  // namespace lumoraAiModule
