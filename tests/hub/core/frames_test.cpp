// The frames between the hub and a worker, and the reader that takes them out of a stream.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <array>
#include <thread>
#include <vector>

#include "base/unique_fd.h"
#include "hub/worker/frame_reader.h"
#include "hub/worker/frames.h"

namespace {

using lumora_hub::EncodeFrame;
using lumora_hub::EncodeHead;
using lumora_hub::Frame;
using lumora_hub::FrameHead;
using lumora_hub::FrameKind;
using lumora_hub::FrameReader;

FrameHead HeadOf(FrameKind kind, std::uint64_t number = 0) {
    FrameHead head;
    head.kind = kind;
    head.number = number;
    return head;
}

class FrameReaderTest : public testing::Test {
protected:
    FrameReaderTest() {
        std::array<int, 2> ends = {};
        socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data());
        mSender = lumora::UniqueFd(ends[0]);
        mReceiver = lumora::UniqueFd(ends[1]);
    }

    void Send(const std::string& bytes) {
        std::size_t sent = 0;
        while (sent < bytes.size()) {
            const ssize_t written =
                send(mSender.Get(), bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
            ASSERT_GT(written, 0);
            sent += static_cast<std::size_t>(written);
        }
    }
    FrameReader::Result Read() { return mReader.Read(mReceiver.Get()); }

    lumora::UniqueFd mSender;
    lumora::UniqueFd mReceiver;
    std::vector<Frame> mFrames;
    FrameReader mReader{[this](Frame frame) { mFrames.push_back(std::move(frame)); }};
};

TEST_F(FrameReaderTest, TakesAFrameThatComesByteByByte) {
    for (const char byte : EncodeFrame(HeadOf(FrameKind::BLOCK, 7), "picture", "bytes")) {
        EXPECT_TRUE(mFrames.empty());
        Send(std::string(1, byte));
        EXPECT_EQ(Read(), FrameReader::Result::WAITING);
    }
    ASSERT_EQ(mFrames.size(), 1U);
    EXPECT_EQ(mFrames[0].head.number, 7U);
    EXPECT_EQ(mFrames[0].name, "picture");
    EXPECT_EQ(mFrames[0].body, "bytes");
}

TEST_F(FrameReaderTest, TakesManyFramesAtOnce) {
    std::string bytes;
    for (std::uint64_t number = 0; number < 100; ++number) {
        bytes += EncodeFrame(HeadOf(FrameKind::ANSWER, number), {}, {});
    }
    Send(bytes);
    Read();
    ASSERT_EQ(mFrames.size(), 100U);
    EXPECT_EQ(mFrames[99].head.number, 99U);
}

TEST_F(FrameReaderTest, TakesLargeBodiesWhole) {
    std::string body(lumora_hub::MAX_FRAME_BODY, '\0');
    for (std::size_t i = 0; i < body.size(); ++i) {
        body[i] = static_cast<char>(i * 7 / 3);
    }
    const std::string small = EncodeFrame(HeadOf(FrameKind::SUBSCRIBE), "after", {});
    std::thread sender([&] { Send(EncodeFrame(HeadOf(FrameKind::SEND), {}, body) + small); });
    while (mFrames.size() < 2) {
        ASSERT_EQ(Read(), FrameReader::Result::WAITING);
    }
    sender.join();
    EXPECT_TRUE(mFrames[0].body == body);
    EXPECT_EQ(mFrames[1].name, "after");
}

TEST_F(FrameReaderTest, TellsTheEndOfThePeer) {
    Send(EncodeFrame(HeadOf(FrameKind::ANSWER), {}, {}));
    mSender.Close();
    EXPECT_EQ(Read(), FrameReader::Result::ENDED);
    EXPECT_EQ(mFrames.size(), 1U);
}

// A head, and whether it can be.
struct HeadCase {
    FrameKind kind;
    std::uint32_t bodyLength;
    std::uint16_t nameLength;
    bool valid;
};

class FrameHeadTest : public FrameReaderTest, public testing::WithParamInterface<HeadCase> {};

TEST_P(FrameHeadTest, LengthsAreBelievedWithinTheLimitsOfTheKind) {
    FrameHead head = HeadOf(GetParam().kind);
    head.bodyLength = GetParam().bodyLength;
    head.nameLength = GetParam().nameLength;
    const auto bytes = EncodeHead(head);
    Send(std::string(bytes.data(), bytes.size()));
    EXPECT_EQ(Read() == FrameReader::Result::WAITING, GetParam().valid);
}

INSTANTIATE_TEST_SUITE_P(
    Heads, FrameHeadTest,
    testing::Values(HeadCase{FrameKind::BLOCK, 5242880, 400, true},
                    HeadCase{FrameKind::BLOCK, 5242881, 1, false}, HeadCase{FrameKind::BLOCK, 1, 401, false},
                    HeadCase{FrameKind::BLOCK, 0xffffffff, 0xffff, false},
                    HeadCase{FrameKind::COMMAND, 1024, 1, true}, HeadCase{FrameKind::COMMAND, 1025, 1, false},
                    HeadCase{FrameKind::ANSWER, 1, 0, false}, HeadCase{FrameKind{0}, 0, 0, false},
                    HeadCase{FrameKind{10}, 0, 0, false}));

}  // namespace
