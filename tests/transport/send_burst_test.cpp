// Which frames of a burst may wait for the ones behind them.
#include "transport/send_burst.h"

#include <gtest/gtest.h>

#include <string>

namespace lumora_test {
namespace {

using lumoraAiModule::SendBurst;
using std::chrono::microseconds;

class SendBurstTest : public testing::Test {
protected:
    // Sends a frame after a pause. '+' for one that is held back, '.' for one that goes out at once.
    char Send(unsigned int length, microseconds pause) {
        mNow += pause;
        const bool heldBack = mBurst.MayHoldBack(length, mNow);
        mBurst.OnSent(length, heldBack, mNow);
        return heldBack ? '+' : '.';
    }
    std::string SendMany(int count, unsigned int length, microseconds pause) {
        std::string seen;
        for (int i = 0; i < count; ++i) {
            seen += Send(length, pause);
        }
        return seen;
    }

    SendBurst mBurst;
    SendBurst::Clock::time_point mNow = SendBurst::Clock::now();
};

TEST_F(SendBurstTest, HoldsBackFromTheEighthFrameOn) {
    EXPECT_EQ(".......+++", SendMany(10, 64, microseconds(12)));
}

TEST_F(SendBurstTest, HoldsNothingBackOfAPacedStream) {
    EXPECT_EQ(std::string(20, '.'), SendMany(20, 64, microseconds(13)));
}

TEST_F(SendBurstTest, PauseBeginsANewBurst) {
    SendMany(20, 64, microseconds(1));
    EXPECT_EQ('.', Send(64, microseconds(101)));
    EXPECT_EQ("......+", SendMany(7, 64, microseconds(1)));
}

TEST_F(SendBurstTest, GapsBetweenTwoFramesEndALongBurstOnlyIfTheyRepeat) {
    SendMany(20, 64, microseconds(1));
    EXPECT_EQ('+', Send(64, microseconds(30)));
    EXPECT_EQ('.', Send(64, microseconds(30)));
    EXPECT_EQ("..+", SendMany(3, 64, microseconds(1)));
}

TEST_F(SendBurstTest, FramesAreHeldBackFor50MicrosecondsAtMostWhileOthersFollow) {
    EXPECT_EQ(".......+++++++++++++++++++++++++.+++", SendMany(36, 64, microseconds(2)));
}

TEST_F(SendBurstTest, SixteenKibAreSentTogether) {
    SendMany(7, 1024, microseconds(1));
    EXPECT_EQ("+++++++++++++++.+++++++++++++++.", SendMany(32, 1024, microseconds(1)));
}

TEST_F(SendBurstTest, FramesOfUpTo2KibAreSmall) {
    EXPECT_EQ(".......++", SendMany(9, 2048, microseconds(1)));
    EXPECT_EQ("..........", SendMany(10, 2049, microseconds(1)));
}

TEST_F(SendBurstTest, LargeFrameGoesOutAtOnceAndBeginsANewBurst) {
    SendMany(10, 64, microseconds(1));
    EXPECT_EQ('.', Send(100000, microseconds(1)));
    EXPECT_EQ(".......+", SendMany(8, 64, microseconds(1)));
}

}  // namespace
}  // namespace lumora_test
