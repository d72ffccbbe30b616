// The queue between the hub and one consumer.
#include "hub/core/consumer.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

namespace {

using lumora_hub::Block;
using lumora_hub::BlockPointer;
using lumora_hub::Consumer;
using lumora_hub::QueueLimits;

BlockPointer BlockOf(std::uint64_t number, std::size_t size = 1) {
    auto block = std::make_shared<Block>();
    block->number = number;
    block->bytes.assign(size, 'x');
    return block;
}

TEST(ConsumerTest, GivesBlocksInTheirOrder) {
    Consumer consumer("one", {}, nullptr);
    consumer.Push(BlockOf(1));
    consumer.Push(BlockOf(2));
    EXPECT_EQ(consumer.Take()->number, 1U);
    EXPECT_EQ(consumer.Take()->number, 2U);
    EXPECT_EQ(consumer.Take(), nullptr);
    EXPECT_EQ(consumer.Counts().delivered, 2U);
}

TEST(ConsumerTest, DropsTheOldestBlockWhenThereAreTooMany) {
    Consumer consumer("one", {2, 1000}, nullptr);
    for (std::uint64_t number = 1; number <= 3; ++number) {
        consumer.Push(BlockOf(number));
    }
    EXPECT_EQ(consumer.Counts().lost, 1U);
    EXPECT_EQ(consumer.Counts().waiting, 2U);
    EXPECT_EQ(consumer.Take()->number, 2U);
}

TEST(ConsumerTest, DropsAsManyAsALargeBlockNeedsRoomFor) {
    Consumer consumer("one", {10, 100}, nullptr);
    for (std::uint64_t number = 1; number <= 4; ++number) {
        consumer.Push(BlockOf(number, 25));
    }
    consumer.Push(BlockOf(5, 60));
    EXPECT_EQ(consumer.Counts().lost, 3U);
    EXPECT_EQ(consumer.Counts().waitingBytes, 85U);
}

TEST(ConsumerTest, TakesOneBlockOfAnySize) {
    Consumer consumer("one", {10, 100}, nullptr);
    consumer.Push(BlockOf(1, 10));
    consumer.Push(BlockOf(2, 5000));
    EXPECT_EQ(consumer.Counts().lost, 1U);
    EXPECT_EQ(consumer.Take()->number, 2U);
    EXPECT_EQ(consumer.Counts().waitingBytes, 0U);
}

TEST(ConsumerTest, TellsOnlyOfTheFirstBlockOfAnEmptyQueue) {
    int told = 0;
    Consumer consumer("one", {}, [&] { ++told; });
    consumer.Push(BlockOf(1));
    consumer.Push(BlockOf(2));
    EXPECT_EQ(told, 1);
    while (consumer.Take() != nullptr) {
    }
    consumer.Push(BlockOf(3));
    EXPECT_EQ(told, 2);
}

TEST(ConsumerTest, CountsEveryBlockOfTwoThreads) {
    constexpr std::uint64_t BLOCKS = 20000;
    Consumer consumer("one", {8, 1000}, nullptr);
    std::atomic<bool> done{false};
    std::uint64_t taken = 0;
    std::thread reader([&] {
        while (!done) {
            taken += consumer.Take() != nullptr ? 1U : 0U;
        }
    });
    for (std::uint64_t number = 1; number <= BLOCKS; ++number) {
        consumer.Push(BlockOf(number));
    }
    done = true;
    reader.join();
    const auto counts = consumer.Counts();
    EXPECT_EQ(counts.delivered, taken);
    EXPECT_EQ(counts.delivered + counts.lost + counts.waiting, BLOCKS);
}

}  // namespace
