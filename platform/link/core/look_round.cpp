#include "platform/link/core/look_round.h"

#include <utility>

namespace lumora_link {

void LookRound::Begin(std::string token, TimePoint now) {
    mToken = std::move(token);
    mStart = now;
    mSent = 0;
    mIsOver = false;
}

std::optional<unsigned> LookRound::TakeDueProbe(TimePoint now) {
    if (now < NextProbe()) {
        return std::nullopt;
    }
    return mSent++;
}

bool LookRound::HasSeenAll(TimePoint now) const {
    return !mIsOver && now >= mStart + (PROBES - 1) * PAUSE + QUIET;
}

TimePoint LookRound::NextProbe() const {
    return mIsOver || mSent == PROBES ? TimePoint::max() : mStart + mSent * PAUSE;
}

}  // namespace lumora_link
