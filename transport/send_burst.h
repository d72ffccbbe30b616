// Which small frames may wait in the kernel for the ones behind them.
#pragma once

#include <chrono>

namespace lumoraAiModule {

// Small frames that follow each other closely leave in common segments: that is several times faster, because
// each segment costs as much as copying some KiB. A frame is held back only in the middle of a burst, and
// never longer than LONGEST_HOLD_BACK.
class SendBurst {
public:
    using Clock = std::chrono::steady_clock;
    static constexpr std::chrono::microseconds LONGEST_HOLD_BACK{80};

    // Decides about a frame that is about to be sent.
    bool MayHoldBack(unsigned int length, Clock::time_point now);
    // Has to follow each send.
    void OnSent(unsigned int length, bool heldBack, Clock::time_point now);

private:
    static constexpr unsigned int LARGEST_FRAME = 2048;
    static constexpr std::chrono::microseconds LONGEST_GAP{5};
    static constexpr unsigned int FRAMES_BEFORE = 7;  // of the burst that are sent at once
    static constexpr unsigned int MOST_HELD_BACK = 8192;

    Clock::time_point mLastSent;
    unsigned int mFrames = 0;    // of the burst so far
    unsigned int mHeldBack = 0;  // bytes
};

}  // namespace lumoraAiModule
