#include "platform/link/core/look_round.h"

#include <utility>

namespace lumora_link {

void LookRound::Begin(std::string token, TimePoint now) {
    mToken = std::move(token);
    mNext = now;
    mSent = 0;
    mIsOver = false;
}

std::optional<unsigned> LookRound::TakeDueProbe(TimePoint now) {
    if (now < NextProbe()) {
        return std::nullopt;
    }
    mLast = now;
    mNext = now + PAUSE;
    return mSent++;
}

bool LookRound::HasSeenAll(TimePoint now) const {
    return !mIsOver && mSent == PROBES && now >= mLast + QUIET;
}

TimePoint LookRound::NextProbe() const { return mIsOver || mSent == PROBES ? TimePoint::max() : mNext; }

}  // namespace lumora_link
