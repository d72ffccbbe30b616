// Numbered blocks of one flow, and what their receiver saw of them: what was lost or damaged, and how long
// deliveries paused.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <vector>

namespace lumora_test {

using Clock = std::chrono::steady_clock;
using Milliseconds = std::chrono::duration<double, std::milli>;

// Writes the blocks of one flow. A block names its number in its head and in every 64 bytes behind it, so
// that bytes of another block are noticed at any place.
class FlowWriter {
public:
    explicit FlowWriter(std::size_t size);

    // The next block. It also carries when the send of the block before returned.
    const std::vector<char>& Next();
    // Call when the block of the last Next has been sent.
    void Returned() { mReturned = Clock::now(); }
    std::uint64_t Written() const { return mNumber; }

private:
    std::vector<char> mBlock;
    std::uint64_t mNumber = 0;
    Clock::time_point mReturned;
};

struct FlowReport {
    std::uint64_t received = 0;
    std::uint64_t lost = 0;
    std::uint64_t firstLost = 0;  // the number of the first of them
    std::uint64_t damaged = 0;    // torn, repeated or out of order
    Milliseconds gap{0};          // the longest pause between two deliveries
    Milliseconds lateness{0};     // the longest time from the return of a block's send to its delivery
};

// Checks the blocks of one flow as they are delivered. Safe to use from several threads.
class FlowReceiver {
public:
    // length may be shorter than the block was: an echo device answers with the first bytes of a long one.
    void Take(const char* data, std::size_t length);
    FlowReport Report() const;

private:
    mutable std::mutex mMutex;
    FlowReport mReport;
    std::uint64_t mNext = 0;
    Clock::time_point mLast;
};

}  // namespace lumora_test
