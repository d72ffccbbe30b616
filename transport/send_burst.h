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
    // A slow or busy host needs some microseconds for a frame. An answer to a frame takes longer than this.
    static constexpr std::chrono::microseconds LONGEST_GAP{12};
    // A longer pause ends a burst. A shorter one may be another thread's turn on this core.
    static constexpr std::chrono::microseconds LONGEST_PAUSE{100};
    static constexpr unsigned int FRAMES_BEFORE = 7;  // of the burst that are sent at once
    static constexpr unsigned int MOST_HELD_BACK = 16384;
    // The sender pushes by itself before the receive thread would be woken to do it.
    static constexpr std::chrono::microseconds PUSH_AFTER{50};

    Clock::time_point mLastSent;
    Clock::time_point mHeldBackSince;
    unsigned int mFrames = 0;    // of the burst so far, up to twice FRAMES_BEFORE
    unsigned int mHeldBack = 0;  // bytes
};

}  // namespace lumoraAiModule
