// How many lines of one place are written, in a time of the test's own.
#include "line_limit.h"

#include <gmock/gmock.h>

#include <string>

#include "probe_run.h"

namespace {

using lumora_log::LineLimit;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::MatchesRegex;
using ::testing::Optional;
using ::testing::SizeIs;

class LineLimitTest : public ::testing::Test {
protected:
    std::optional<std::uint64_t> Admit(int line = 1) { return mLimit.Admit({"TAG", "Function", line}, mNow); }
    void Write(int count) {
        for (int i = 0; i < count; ++i) {
            Admit();
        }
    }

    LineLimit mLimit{3};
    LineLimit::TimePoint mNow{std::chrono::hours(1)};
};

TEST_F(LineLimitTest, TheFirstLinesOfAPlaceAreWritten) {
    for (int i = 0; i < 3; ++i) {
        EXPECT_THAT(Admit(), Optional(0U));
    }
    EXPECT_FALSE(Admit());
}

TEST_F(LineLimitTest, OtherPlacesHaveTheirOwn) {
    Write(4);
    EXPECT_THAT(Admit(2), Optional(0U));
    EXPECT_THAT(mLimit.Admit({"OTHER", "Function", 1}, mNow), Optional(0U));
}

TEST_F(LineLimitTest, TheNextMinuteBeginsAnewAndTellsWhatWasLeftOut) {
    Write(10);
    mNow += std::chrono::milliseconds(59999);
    EXPECT_FALSE(Admit());
    mNow += std::chrono::milliseconds(1);
    EXPECT_THAT(Admit(), Optional(8U));
    EXPECT_THAT(Admit(), Optional(0U));
    EXPECT_THAT(Admit(), Optional(0U));
    EXPECT_FALSE(Admit());
}

TEST_F(LineLimitTest, ZeroIsNoLimit) {
    LineLimit none(0);
    for (int i = 0; i < 1000; ++i) {
        ASSERT_THAT(none.Admit({"TAG", "Function", 1}, mNow), Optional(0U));
    }
}

TEST_F(LineLimitTest, EndlesslyManyPlacesTakeNoEndlessMemory) {
    for (int line = 0; line < 100000; ++line) {
        ASSERT_THAT(Admit(line), Optional(0U));
    }
    Write(5);
    EXPECT_FALSE(Admit());
}

TEST(LogLimit, LeavesOutWhatOnePlaceRepeats) {
    const Variables textOnly = {{"LUMORA_LOG_PATTERN", "%v"}};
    EXPECT_THAT(RunProbe({"many", "10000"}, textOnly).err, SizeIs(30));
    EXPECT_THAT(RunProbe({"many", "10000"}, {{"LUMORA_LOG_PATTERN", "%v"}, {"LUMORA_LOG_LIMIT", "2"}}).err,
                ElementsAre("line 000000", "line 000001"));
}

TEST(LogLimit, OfThreadsIsOneForAll) {
    const ProbeResult probe = RunProbe({"threads"}, {{"LUMORA_LOG_PATTERN", "%v"}});
    EXPECT_THAT(probe.err, SizeIs(30));
    EXPECT_THAT(probe.err, Each(MatchesRegex("thread [abcd] line [0-9]{3} end")));
}

TEST(LogLimit, DoesNotApplyToLevelsThatWereSelected) {
    const Variables variables = {{"LUMORA_LOG_LEVEL", "1"}, {"LUMORA_LOG_LIMIT", "2"}};
    EXPECT_THAT(RunProbe({"many-details", "1000"}, variables).err, SizeIs(1000));
}

}  // namespace
