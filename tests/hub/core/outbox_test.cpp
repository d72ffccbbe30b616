// What a worker does when the hub does not read.
#include "hub/worker/outbox.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <array>
#include <chrono>
#include <thread>
#include <vector>

#include "base/unique_fd.h"
#include "hub/worker/frame_reader.h"

namespace {

using lumora_hub::Frame;
using lumora_hub::FrameHead;
using lumora_hub::FrameKind;
using lumora_hub::FrameReader;
using lumora_hub::Outbox;

class OutboxTest : public testing::Test {
protected:
    OutboxTest() {
        std::array<int, 2> ends = {};
        socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends.data());
        mWorker = lumora::UniqueFd(ends[0]);
        mHub = lumora::UniqueFd(ends[1]);
    }

    // As the hub and the worker's main thread do.
    void ReadAll(Outbox& outbox) {
        do {
            outbox.Flush();
            mReader.Read(mHub.Get());
        } while (outbox.IsWaiting());
        mReader.Read(mHub.Get());
    }

    lumora::UniqueFd mWorker;
    lumora::UniqueFd mHub;
    std::vector<Frame> mFrames;
    FrameReader mReader{[this](Frame frame) { mFrames.push_back(std::move(frame)); }};
};

TEST_F(OutboxTest, SendsBlocksAtOnceWhileTheHubReads) {
    Outbox outbox(mWorker.Get(), {});
    outbox.SendBlock("picture", 1, "first");
    outbox.SendBlock("picture", 2, "second");
    EXPECT_FALSE(outbox.IsWaiting());
    ReadAll(outbox);
    ASSERT_EQ(mFrames.size(), 2U);
    EXPECT_EQ(mFrames[1].body, "second");
}

TEST_F(OutboxTest, DropsTheOldestBlocksAndNoOtherFrames) {
    Outbox outbox(mWorker.Get(), {4, 1000000});
    const std::string block(100000, 'x');
    for (std::uint64_t number = 1; number <= 20; ++number) {
        outbox.SendBlock("picture", number, block);
        FrameHead head;
        head.kind = FrameKind::ANSWER;
        head.number = number;
        outbox.Send(head);
    }
    ReadAll(outbox);
    std::vector<std::uint64_t> blocks;
    std::uint64_t answers = 0;
    for (const Frame& frame : mFrames) {
        if (frame.head.kind == FrameKind::BLOCK) {
            EXPECT_EQ(frame.body.size(), block.size());
            blocks.push_back(frame.head.number);
        } else {
            EXPECT_EQ(frame.head.number, ++answers);
        }
    }
    EXPECT_EQ(answers, 20U);
    // The first ones had gone before the hub's socket was full; of the others the last four are left.
    ASSERT_GT(blocks.size(), 4U);
    ASSERT_LT(blocks.size(), 20U);
    EXPECT_EQ(std::vector<std::uint64_t>(blocks.end() - 4, blocks.end()),
              (std::vector<std::uint64_t>{17, 18, 19, 20}));
}

TEST_F(OutboxTest, HoldsUpTheDeviceForAMomentOnly) {
    Outbox outbox(mWorker.Get(), {});
    const std::string block(1000000, 'x');
    const auto begin = std::chrono::steady_clock::now();
    for (std::uint64_t number = 1; number <= 100; ++number) {
        outbox.SendBlock("picture", number, block);
    }
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(3));
}

TEST_F(OutboxTest, AHubThatIsGoneIsNoTrouble) {
    Outbox outbox(mWorker.Get(), {});
    mHub.Close();
    outbox.SendBlock("picture", 1, "block");
    outbox.Flush();
    EXPECT_FALSE(outbox.IsWaiting());
}

TEST_F(OutboxTest, BlocksOfOneThreadAndAnswersOfAnotherComeWhole) {
    constexpr std::uint64_t COUNT = 500;
    Outbox outbox(mWorker.Get(), {100000, std::size_t{1} << 30});
    std::thread blocks([&] {
        for (std::uint64_t number = 1; number <= COUNT; ++number) {
            outbox.SendBlock("picture", number, std::string(number * 40, 'x'));
        }
    });
    std::thread answers([&] {
        for (std::uint64_t number = 1; number <= COUNT; ++number) {
            FrameHead head;
            head.kind = FrameKind::ANSWER;
            head.number = number;
            outbox.Send(head);
        }
    });
    while (mFrames.size() < 2 * COUNT) {
        outbox.Flush();
        ASSERT_EQ(mReader.Read(mHub.Get()), FrameReader::Result::WAITING);
    }
    blocks.join();
    answers.join();
    std::uint64_t lastBlock = 0;
    for (const Frame& frame : mFrames) {
        if (frame.head.kind == FrameKind::BLOCK) {
            EXPECT_EQ(frame.head.number, ++lastBlock);
            EXPECT_EQ(frame.body.size(), lastBlock * 40);
        }
    }
}

}  // namespace
