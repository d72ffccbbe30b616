// How long this machine keeps a thread from running that only sleeps. A pause of a flow counts only beyond
// that.
#pragma once

#include <atomic>
#include <thread>

#include "flow_blocks.h"

namespace lumora_test {

class StallMeter {
public:
    StallMeter() : mThread([this] { Measure(); }) {}
    ~StallMeter() {
        mEnd = true;
        mThread.join();
    }
    StallMeter(const StallMeter&) = delete;
    StallMeter& operator=(const StallMeter&) = delete;

    Milliseconds Longest() const { return Milliseconds(mLongest.load()); }

private:
    void Measure() {
        constexpr auto NAP = std::chrono::milliseconds(1);
        while (!mEnd) {
            const Clock::time_point begin = Clock::now();
            std::this_thread::sleep_for(NAP);
            const Milliseconds late = Clock::now() - begin - NAP;
            if (late.count() > mLongest) {
                mLongest = late.count();
            }
        }
    }

    std::atomic<bool> mEnd{false};
    std::atomic<double> mLongest{0};
    std::thread mThread;  // last: it uses the others
};

}  // namespace lumora_test
