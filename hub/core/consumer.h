// A bounded queue of blocks between the hub and one consumer.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <string>

#include "base/mutex.h"
#include "hub/core/block.h"

namespace lumora_hub {

// Small blocks that come together after a pause of the network shall find room. 4,096 of them take 1 MB, with
// what describes them.
constexpr std::size_t MOST_BLOCKS_OF_QUEUE = 4096;

struct QueueLimits {
    std::size_t blocks = MOST_BLOCKS_OF_QUEUE;
    std::size_t bytes = std::size_t{16} << 20;  // one block is always taken, whatever its size
};

struct ConsumerCounts {
    std::uint64_t delivered = 0;  // blocks that were taken
    std::uint64_t lost = 0;       // blocks that were dropped because the consumer was slow
    std::size_t waiting = 0;
    std::size_t waitingBytes = 0;
};

// Any thread may call its functions.
class Consumer {
public:
    // name is for people: logs and metrics. onReady is called when a block comes into an empty queue, on a
    // thread of the hub and without a lock. It must return at once and must not call the hub.
    Consumer(std::string name, QueueLimits limits, std::function<void()> onReady);
    Consumer(const Consumer&) = delete;
    Consumer& operator=(const Consumer&) = delete;

    const std::string& Name() const { return mName; }

    // Drops the oldest blocks if there is no room.
    void Push(BlockPointer block);
    // The oldest block; empty if there is none.
    BlockPointer Take();
    ConsumerCounts Counts() const;

private:
    void DropOldest() REQUIRES(mMutex);

    const std::string mName;
    const QueueLimits mLimits;
    const std::function<void()> mOnReady;

    mutable lumora::Mutex mMutex;  // a leaf lock
    std::deque<BlockPointer> mBlocks GUARDED_BY(mMutex);
    ConsumerCounts mCounts GUARDED_BY(mMutex);
};

}  // namespace lumora_hub
