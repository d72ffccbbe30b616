#include "version/lumora_version.h"

#include <gmock/gmock.h>

#include <regex>

#include "tests/support/captured_log.h"

namespace lumoraAiModule {
namespace {

using lumora_test::CapturedLog;

class VersionTest : public testing::Test {
protected:
    CapturedLog mLog;
};

TEST_F(VersionTest, TextIsMajorMinorPatch) {
    std::string version;
    EXPECT_EQ(0, LumoraVersion::GetVersion(version));
    EXPECT_EQ("1.1.1", version);
    EXPECT_TRUE(mLog.Has(1, "version = 1.1.1\n")) << mLog.Dump();
}

TEST_F(VersionTest, BuildTimeAddsNothing) {
    std::string buildTime = "_";
    EXPECT_EQ(0, LumoraVersion::GetBuildTime(buildTime));
    EXPECT_EQ("", buildTime);
}

TEST_F(VersionTest, MonthsAreNumberedFromOne) {
    const char* const names[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                 "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    unsigned int expected = 1;
    for (const char* name : names) {
        unsigned int month = 0;
        EXPECT_EQ(0, LumoraVersion::GetMonth(month, std::string(name) + " 31 2020"));
        EXPECT_EQ(expected++, month);
    }
}

TEST_F(VersionTest, UnknownMonthIsAnErrorAndLeavesZero) {
    unsigned int month = 7;
    EXPECT_EQ(-1, LumoraVersion::GetMonth(month, "Foo 31 2020"));
    EXPECT_EQ(0U, month);
    EXPECT_TRUE(mLog.Has(4, "Time error.\n")) << mLog.Dump();
}

TEST_F(VersionTest, DateWithOneDigitDayIsPadded) {
    std::string result;
    EXPECT_EQ(0, LumoraVersion::CalcBuildDate(result, "Jan  5 2021"));
    EXPECT_EQ("20210105", result);
    EXPECT_EQ(0, LumoraVersion::CalcBuildDate(result, "Feb  8 2020"));
    EXPECT_EQ("20200208", result);
    EXPECT_TRUE(mLog.Has(1, "dateResult = 20200208\n")) << mLog.Dump();
}

TEST_F(VersionTest, DateWithTwoDigitDayHasItTwice) {
    std::string result;
    EXPECT_EQ(0, LumoraVersion::CalcBuildDate(result, "Feb 28 2020"));
    EXPECT_EQ("2020022828", result);
    EXPECT_EQ(0, LumoraVersion::CalcBuildDate(result, "Nov 11 2021"));
    EXPECT_EQ("2021111111", result);
    EXPECT_EQ(0, LumoraVersion::CalcBuildDate(result, "Dec 10 2021"));
    EXPECT_EQ("2021121010", result);
}

TEST_F(VersionTest, DateWithUnknownMonthFails) {
    std::string result = "before";
    EXPECT_EQ(-1, LumoraVersion::CalcBuildDate(result, "Foo 28 2020"));
    EXPECT_EQ("before", result);
    EXPECT_TRUE(mLog.Has(4, "Get Month failed.\n")) << mLog.Dump();
}

TEST_F(VersionTest, TruncatedDateDoesNotThrow) {
    std::string result;
    EXPECT_EQ(0, LumoraVersion::CalcBuildDate(result, "Jan"));
    EXPECT_EQ(-1, LumoraVersion::CalcBuildDate(result, ""));
}

TEST_F(VersionTest, TimeLosesItsColons) {
    std::string result;
    LumoraVersion::CalcBuildHour(result, "19:09:15");
    EXPECT_EQ("190915", result);
    EXPECT_TRUE(mLog.Has(1, "hourResult = 190915\n")) << mLog.Dump();
}

TEST_F(VersionTest, BuildDateAndTimeHaveTheCompilersForm) {
    EXPECT_TRUE(std::regex_match(g_mRealDateTime, std::regex("[A-Z][a-z]{2} [ 0-9][0-9] [0-9]{4}")));
    EXPECT_TRUE(std::regex_match(g_mRealHourTime, std::regex("[0-9]{2}:[0-9]{2}:[0-9]{2}")));
}

}  // namespace
}  // namespace lumoraAiModule
