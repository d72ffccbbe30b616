// The pauses between attempts.
#pragma once

#include <algorithm>
#include <chrono>
#include <random>

namespace lumora_hub {

// Each pause is twice as long as the one before, up to a limit, and shortened by up to a quarter at random:
// otherwise many devices that ended together would be tried together for ever.
class BackOff {
public:
    using Milliseconds = std::chrono::milliseconds;

    BackOff(Milliseconds first, Milliseconds longest) : mFirst(first), mLongest(longest), mNext(first) {}

    Milliseconds Next() {
        const Milliseconds pause = mNext;
        mNext = std::min(mNext * 2, mLongest);
        std::uniform_int_distribution<Milliseconds::rep> spread(0, pause.count() / 4);
        return pause - Milliseconds(spread(mRandom));
    }
    void Reset() { mNext = mFirst; }

private:
    const Milliseconds mFirst;
    const Milliseconds mLongest;
    Milliseconds mNext;
    std::minstd_rand mRandom{std::random_device{}()};
};

}  // namespace lumora_hub
