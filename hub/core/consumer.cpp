#include "hub/core/consumer.h"

#include <utility>

namespace lumora_hub {

Consumer::Consumer(std::string name, QueueLimits limits, std::function<void()> onReady)
    : mName(std::move(name)), mLimits(limits), mOnReady(std::move(onReady)) {}

// The callback runs outside of the lock, so that it may take blocks.
void Consumer::Push(BlockPointer block) {
    bool wasEmpty = false;
    {
        const lumora::MutexLock lock(mMutex);
        const std::size_t size = block->bytes.size();
        while (!mBlocks.empty() &&
               (mBlocks.size() >= mLimits.blocks || mCounts.waitingBytes + size > mLimits.bytes)) {
            DropOldest();
        }
        wasEmpty = mBlocks.empty();
        mCounts.waitingBytes += size;
        mBlocks.push_back(std::move(block));
        mCounts.waiting = mBlocks.size();
    }
    if (wasEmpty && mOnReady) {
        mOnReady();
    }
}

BlockPointer Consumer::Take() {
    const lumora::MutexLock lock(mMutex);
    if (mBlocks.empty()) {
        return nullptr;
    }
    BlockPointer block = std::move(mBlocks.front());
    mBlocks.pop_front();
    mCounts.waiting = mBlocks.size();
    mCounts.waitingBytes -= block->bytes.size();
    ++mCounts.delivered;
    return block;
}

ConsumerCounts Consumer::Counts() const {
    const lumora::MutexLock lock(mMutex);
    return mCounts;
}

void Consumer::DropOldest() {
    mCounts.waitingBytes -= mBlocks.front()->bytes.size();
    mBlocks.pop_front();
    ++mCounts.lost;
}

}  // namespace lumora_hub
