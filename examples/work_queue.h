// A bounded queue of work for one thread. Adding never waits: a full queue refuses.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <mutex>
#include <optional>
#include <utility>

namespace text_reader {

template <typename Item>
class WorkQueue {
public:
    explicit WorkQueue(std::size_t capacity) : mCapacity(capacity) {}

    // False if the queue is full or closed.
    bool TryPush(Item item) {
        {
            const std::lock_guard<std::mutex> lock(mMutex);
            if (mClosed || mItems.size() >= mCapacity) {
                return false;
            }
            mItems.push_back(std::move(item));
        }
        mChanged.notify_one();
        return true;
    }

    // Waits for an item; nothing once the queue is closed and empty.
    std::optional<Item> Pop() {
        std::unique_lock<std::mutex> lock(mMutex);
        mChanged.wait(lock, [this] { return mClosed || !mItems.empty(); });
        if (mItems.empty()) {
            return std::nullopt;
        }
        Item item = std::move(mItems.front());
        mItems.pop_front();
        return item;
    }

    // Takes no more.
    void Close() {
        {
            const std::lock_guard<std::mutex> lock(mMutex);
            mClosed = true;
        }
        mChanged.notify_all();
    }

private:
    const std::size_t mCapacity;
    std::mutex mMutex;  // guards what follows
    std::condition_variable mChanged;
    std::deque<Item> mItems;
    bool mClosed = false;
};

}  // namespace text_reader
