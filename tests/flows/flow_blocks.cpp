#include "flow_blocks.h"

#include <algorithm>
#include <cstring>

namespace lumora_test {

namespace {

constexpr std::uint32_t MARK = 0x574f4c46;
constexpr std::size_t STRIDE = 64;

struct Head {
    std::uint32_t mark;
    std::uint32_t length;
    std::uint64_t number;
    Clock::rep previousReturned;  // processes of one machine share the clock
};

std::uint64_t WordAt(std::uint64_t number, std::size_t at) { return (number + 1) * 0x9e3779b97f4a7c15U ^ at; }

bool IsIntact(const Head& head, const char* data, std::size_t length) {
    if (head.mark != MARK || length > head.length) {
        return false;
    }
    for (std::size_t at = STRIDE; at + sizeof(std::uint64_t) <= length; at += STRIDE) {
        std::uint64_t word = 0;
        std::memcpy(&word, data + at, sizeof(word));
        if (word != WordAt(head.number, at)) {
            return false;
        }
    }
    return true;
}

}  // namespace

FlowWriter::FlowWriter(std::size_t size) : mBlock(std::max(size, sizeof(Head)), 'x') {}

const std::vector<char>& FlowWriter::Next() {
    const Head head = {MARK, static_cast<std::uint32_t>(mBlock.size()), mNumber,
                       mReturned.time_since_epoch().count()};
    std::memcpy(mBlock.data(), &head, sizeof(head));
    for (std::size_t at = STRIDE; at + sizeof(std::uint64_t) <= mBlock.size(); at += STRIDE) {
        const std::uint64_t word = WordAt(mNumber, at);
        std::memcpy(&mBlock[at], &word, sizeof(word));
    }
    ++mNumber;
    return mBlock;
}

void FlowReceiver::Take(const char* data, std::size_t length) {
    const Clock::time_point now = Clock::now();
    Head head = {};
    if (length >= sizeof(head)) {
        std::memcpy(&head, data, sizeof(head));
    }
    const bool intact = IsIntact(head, data, length);
    const std::lock_guard<std::mutex> lock(mMutex);
    if (!intact || head.number < mNext) {
        ++mReport.damaged;
        return;
    }
    if (mReport.received != 0) {
        mReport.gap = std::max<Milliseconds>(mReport.gap, now - mLast);
    }
    // The block before was delivered at mLast, unless it was lost.
    if (head.number == mNext && head.number != 0) {
        const Clock::time_point returned{Clock::duration(head.previousReturned)};
        mReport.lateness = std::max<Milliseconds>(mReport.lateness, mLast - returned);
    }
    if (head.number != mNext && mReport.lost == 0) {
        mReport.firstLost = mNext;
    }
    mReport.lost += head.number - mNext;
    ++mReport.received;
    mNext = head.number + 1;
    mLast = now;
}

FlowReport FlowReceiver::Report() const {
    const std::lock_guard<std::mutex> lock(mMutex);
    return mReport;
}

}  // namespace lumora_test
