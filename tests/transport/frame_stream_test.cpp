// Where a stream wants its next bytes, and how many of them.
#include "transport/frame_stream.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <string>
#include <vector>

#include "protocol/data_frame.h"

namespace lumora_test {
namespace {

using lumoraAiModule::FrameCutter;
using lumoraAiModule::FrameStream;
using lumoraAiModule::READ_SIZE;
using testing::ElementsAre;

constexpr unsigned int CAPACITY = READ_SIZE + 200000;
constexpr unsigned int HEAD = lumoraAiModule::COMMON_HEAD_LENGTH;

// Frames of a common head and a payload.
class PlainCutter : public FrameCutter {
public:
    void CutFrames(char* data, unsigned int length, unsigned int& consumed) override {
        consumed = 0;
        while (length - consumed >= HEAD && WholeFrameLength(data + consumed) <= length - consumed) {
            lengths.push_back(WholeFrameLength(data + consumed));
            consumed += lengths.back();
        }
    }
    unsigned int WholeFrameLength(const char* data) override {
        return HEAD + lumoraAiModule::PayloadLengthOf(data);
    }
    unsigned int PendingFrameLength(const char* data, unsigned int) override {
        return WholeFrameLength(data);
    }
    unsigned int MinimumHeadLength() const override { return HEAD; }

    std::vector<unsigned int> lengths;
};

std::string Frame(unsigned int payload) {
    std::string frame(HEAD + payload, 'x');
    frame[0] = static_cast<char>(HEAD);
    lumoraAiModule::WriteLittleEndian32(&frame[1], payload);
    return frame;
}

class FrameStreamTest : public testing::Test {
protected:
    FrameStreamTest() { EXPECT_TRUE(mStream.Held().Allocate()); }

    // Reads as much of bytes as the stream asks for, and tells how much that was.
    std::size_t Read(const std::string& bytes) {
        unsigned int most = 0;
        char* const position = mStream.ReadPosition(mReadBuffer.data(), most);
        const std::size_t count = std::min<std::size_t>(most, bytes.size());
        std::copy_n(bytes.data(), count, position);
        EXPECT_EQ(0, mStream.ParseAndSendData(position, static_cast<unsigned int>(count)));
        return count;
    }

    PlainCutter mCutter;
    std::atomic<bool> mPending{false};
    FrameStream mStream{CAPACITY, mCutter, mPending};
    std::vector<char> mReadBuffer = std::vector<char>(READ_SIZE);
};

TEST_F(FrameStreamTest, AsksForAWholeReadWhileNoFrameIsPending) {
    unsigned int most = 0;
    EXPECT_EQ(mStream.Held().Data(), mStream.ReadPosition(mReadBuffer.data(), most));
    EXPECT_EQ(READ_SIZE, most);
}

TEST_F(FrameStreamTest, ReadsAPendingLargeFrameUpToItsEndAndNoFurther) {
    const std::string frame = Frame(100000);
    Read(frame.substr(0, 60000));
    EXPECT_EQ(frame.size() - 60000, Read(frame.substr(60000) + Frame(10)));
    EXPECT_THAT(mCutter.lengths, ElementsAre(frame.size()));
    EXPECT_FALSE(mPending);
}

TEST_F(FrameStreamTest, ReadsBeyondTheEndOfAPendingSmallFrame) {
    const std::string frame = Frame(1000);
    Read(frame.substr(0, 600));
    Read(frame.substr(600) + Frame(10));
    EXPECT_THAT(mCutter.lengths, ElementsAre(frame.size(), HEAD + 10));
}

TEST_F(FrameStreamTest, FramesOfAllLengthsArriveWhateverTheReadsBring) {
    std::string stream;
    std::vector<unsigned int> lengths;
    for (const unsigned int payload : {0U, 1U, 65535U, 65536U, 200U, 1000000U, 3U, 300000U, 65536U, 9U}) {
        lengths.push_back(HEAD + payload);
        stream += Frame(payload);
    }
    for (const std::size_t piece : {1000U, 4096U, 65536U, 70001U, 1048576U}) {
        mCutter.lengths.clear();
        for (std::size_t begin = 0; begin < stream.size();) {
            begin += Read(stream.substr(begin, piece));
        }
        EXPECT_EQ(lengths, mCutter.lengths) << "pieces of " << piece;
    }
}

TEST_F(FrameStreamTest, ReadsAsideIfThereIsNoRoomBehindTheHeldBytes) {
    const std::string bytes(CAPACITY, '\xff');  // the beginning of a frame that never ends
    mPending = true;
    ASSERT_EQ(0, mStream.Held().Append(bytes.data(), CAPACITY));
    unsigned int most = 0;
    EXPECT_EQ(mReadBuffer.data(), mStream.ReadPosition(mReadBuffer.data(), most));
    EXPECT_EQ(READ_SIZE, most);
}

}  // namespace
}  // namespace lumora_test
