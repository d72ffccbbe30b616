// What a program's log lines look like, which of them are written, and to which output.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "probe_run.h"

namespace {

using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;
using ::testing::SizeIs;
using ::testing::UnorderedElementsAreArray;

// Text only and every line, for the tests that look at nothing else.
const Variables TEXT_ONLY{{"LUMORA_LOG_PATTERN", "%v"}, {"LUMORA_LOG_LIMIT", "0"}};

Variables TextOnlyAnd(Variables more) {
    more.insert(TEXT_ONLY.begin(), TEXT_ONLY.end());
    return more;
}

TEST(LogLine, SaysWhenHowSevereWhoWhereAndWhat) {
    const ProbeResult probe = RunProbe({"text", "hello"});
    EXPECT_THAT(probe.err, ElementsAre(MatchesRegex("[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9:]{8}\\.[0-9]{3} "
                                                    "E [0-9]+ PROBE RunText:42 hello")));
}

TEST(LogLine, IsFormattedAsByPrintf) {
    EXPECT_THAT(RunProbe({"arguments"}, TEXT_ONLY).err, ElementsAre("text -7 2.50 0xff c more 8 9"));
}

TEST(LogLine, LosesOneLineEndAndKeepsTheOthers) {
    EXPECT_THAT(RunProbe({"text", "ends\n"}, TEXT_ONLY).err, ElementsAre("ends"));
    EXPECT_THAT(RunProbe({"text", "ends\n\n"}, TEXT_ONLY).err, ElementsAre("ends", ""));
    EXPECT_THAT(RunProbe({"text", "in\nside \n"}, TEXT_ONLY).err, ElementsAre("in", "side "));
}

TEST(LogLine, MayBeEmpty) {
    EXPECT_THAT(RunProbe({"text", ""}, TEXT_ONLY).err, ElementsAre(""));
    EXPECT_THAT(RunProbe({"text", "\n"}, TEXT_ONLY).err, ElementsAre(""));
}

TEST(LogLine, IsNoPatternItself) {
    EXPECT_THAT(RunProbe({"text", "{} %v {0}"}, TEXT_ONLY).err, ElementsAre("{} %v {0}"));
}

TEST(LogLine, IsWholeUpTo2047Characters) {
    EXPECT_THAT(RunProbe({"long", "2047"}, TEXT_ONLY).err, ElementsAre(std::string(2047, 'x')));
}

TEST(LogLine, IsCutWithAMarkWhenItIsLonger) {
    const std::string cut = std::string(2044, 'x') + "...";
    EXPECT_THAT(RunProbe({"long", "2048"}, TEXT_ONLY).err, ElementsAre(cut));
    EXPECT_THAT(RunProbe({"long", "1000000"}, TEXT_ONLY).err, ElementsAre(cut));
}

TEST(LogLine, TakesMissingNamesAndLines) {
    const ProbeResult probe = RunProbe({"null-texts"}, {{"LUMORA_LOG_PATTERN", "[%n|%!|%s] %v"}});
    EXPECT_EQ(probe.exitCode, 0);
    EXPECT_THAT(probe.err, ElementsAre("[||] no names", "[PROBE||] no line"));
}

TEST(LogLine, LeavesErrnoAsItWas) { EXPECT_EQ(RunProbe({"errno"}).exitCode, 0); }

TEST(LogLine, OfOneThreadIsNotMixedWithThoseOfOthers) {
    const ProbeResult probe = RunProbe({"threads"}, TEXT_ONLY);
    EXPECT_THAT(probe.err, SizeIs(1000));
    EXPECT_THAT(probe.err, Each(MatchesRegex("thread [abcd] line [0-9]{3} end")));
}

TEST(LogLevel, ShowsFromTwoOnByDefault) {
    EXPECT_THAT(RunProbe({"levels"}, {{"LUMORA_LOG_PATTERN", "%L %v"}}).err,
                ElementsAre("I level 2", "W level 3", "E level 4", "E level 5"));
}

TEST(LogLevel, CanBeLowered) {
    EXPECT_THAT(RunProbe({"levels"}, {{"LUMORA_LOG_PATTERN", "%L %v"}, {"LUMORA_LOG_LEVEL", "0"}}).err,
                ElementsAre("T level 0", "D level 1", "I level 2", "W level 3", "E level 4", "E level 5"));
}

TEST(LogLevel, CanBeRaised) {
    EXPECT_THAT(RunProbe({"levels"}, TextOnlyAnd({{"LUMORA_LOG_LEVEL", "4"}})).err,
                ElementsAre("level 4", "level 5"));
}

TEST(LogLevel, FiveWritesNothing) {
    EXPECT_THAT(RunProbe({"levels"}, TextOnlyAnd({{"LUMORA_LOG_LEVEL", "5"}})).err, IsEmpty());
}

TEST(LogLevel, FiltersBeforeItFormats) {
    const ProbeResult probe = RunProbe({"filtered"}, TEXT_ONLY);
    EXPECT_EQ(probe.exitCode, 0);
    EXPECT_THAT(probe.err, ElementsAre("still here"));
}

TEST(LogOutsideMain, IsWrittenToo) {
    EXPECT_THAT(RunProbe({"text", "main"}, TextOnlyAnd({{"PROBE_OUTSIDE_MAIN", "1"}})).err,
                ElementsAre("before main", "main", "after main"));
}

TEST(LogOutsideMain, IsWrittenToAFileToo) {
    const TemporaryFolder folder;
    const std::string file = folder.Path("log.txt");
    RunProbe({"text", "main"}, TextOnlyAnd({{"PROBE_OUTSIDE_MAIN", "1"}, {"LUMORA_LOG_FILE", file}}));
    EXPECT_THAT(Lines(ReadFile(file)), ElementsAre("before main", "main", "after main"));
}

TEST(LogFile, TakesThePlaceOfStandardError) {
    const TemporaryFolder folder;
    const std::string file = folder.Path("log.txt");
    const ProbeResult probe = RunProbe({"text", "hello"}, TextOnlyAnd({{"LUMORA_LOG_FILE", file}}));
    EXPECT_THAT(probe.err, IsEmpty());
    EXPECT_EQ(ReadFile(file), "hello\n");
}

TEST(LogFile, IsContinued) {
    const TemporaryFolder folder;
    const std::string file = folder.Path("log.txt");
    RunProbe({"text", "first"}, TextOnlyAnd({{"LUMORA_LOG_FILE", file}}));
    RunProbe({"text", "second"}, TextOnlyAnd({{"LUMORA_LOG_FILE", file}}));
    EXPECT_EQ(ReadFile(file), "first\nsecond\n");
}

TEST(LogFile, IsPutAsideWhenItIsFull) {
    const TemporaryFolder folder;
    const std::string file = folder.Path("log.txt");
    const ProbeResult probe = RunProbe({"many", "2000"}, TextOnlyAnd({{"LUMORA_LOG_FILE", file},
                                                                      {"LUMORA_LOG_FILE_SIZE", "4096"},
                                                                      {"LUMORA_LOG_FILE_COUNT", "3"}}));
    EXPECT_THAT(probe.err, IsEmpty());
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(folder.Path(""))) {
        names.push_back(entry.path().filename());
        EXPECT_LE(entry.file_size(), 4096U);
    }
    EXPECT_THAT(names, UnorderedElementsAreArray({"log.txt", "log.1.txt", "log.2.txt"}));
    EXPECT_THAT(ReadFile(file), EndsWith("line 001999\n"));
}

TEST(LogFile, MayBeTheOnlyOneThatIsKept) {
    const TemporaryFolder folder;
    const std::string file = folder.Path("log.txt");
    RunProbe({"many", "2000"}, TextOnlyAnd({{"LUMORA_LOG_FILE", file},
                                            {"LUMORA_LOG_FILE_SIZE", "4096"},
                                            {"LUMORA_LOG_FILE_COUNT", "1"}}));
    EXPECT_FALSE(std::filesystem::exists(folder.Path("log.1.txt")));
    EXPECT_THAT(ReadFile(file), EndsWith("line 001999\n"));
    EXPECT_LE(std::filesystem::file_size(file), 4096U);
}

TEST(LogFile, IsClosedInProgramsThatAreStarted) {
    const TemporaryFolder folder;
    EXPECT_EQ(RunProbe({"descriptors"}, {{"LUMORA_LOG_FILE", folder.Path("log.txt")}}).exitCode, 0);
}

TEST(LogSyslog, TakesLevelAndTimeOffTheText) {
    const ProbeResult probe = RunProbe({"levels"}, {{"LUMORA_LOG_SYSLOG", "1"}, {"LUMORA_LOG_LEVEL", "0"}});
    EXPECT_THAT(probe.err, IsEmpty());
    EXPECT_THAT(Lines(probe.out),
                ElementsAre("openlog program 1 1", MatchesRegex("syslog 7 [0-9]+ PROBE RunLevels:42 level 0"),
                            MatchesRegex("syslog 7 .* level 1"), MatchesRegex("syslog 6 .* level 2"),
                            MatchesRegex("syslog 4 .* level 3"), MatchesRegex("syslog 3 .* level 4"),
                            MatchesRegex("syslog 3 .* level 5")));
}

TEST(LogSyslog, GivesWayToAFile) {
    const TemporaryFolder folder;
    const std::string file = folder.Path("log.txt");
    const ProbeResult probe =
        RunProbe({"text", "hello"}, TextOnlyAnd({{"LUMORA_LOG_FILE", file}, {"LUMORA_LOG_SYSLOG", "1"}}));
    EXPECT_THAT(probe.err, ElementsAre("link_log: LUMORA_LOG_SYSLOG is left aside for LUMORA_LOG_FILE"));
    EXPECT_EQ(ReadFile(file), "hello\n");
    EXPECT_EQ(probe.out, "");
}

struct BadValue {
    const char* variable;
    const char* value;
    const char* complaint;
};

class LogBadValue : public ::testing::TestWithParam<BadValue> {};

TEST_P(LogBadValue, IsNamedOnceAndTheDefaultTaken) {
    const auto& [variable, value, complaint] = GetParam();
    const ProbeResult probe = RunProbe({"levels"}, {{"LUMORA_LOG_PATTERN", "%v"}, {variable, value}});
    EXPECT_THAT(probe.err,
                ElementsAre(std::string("link_log: ") + variable + ": \"" + value + "\" " + complaint,
                            "level 2", "level 3", "level 4", "level 5"));
}

INSTANTIATE_TEST_SUITE_P(
    Settings, LogBadValue,
    ::testing::Values(
        BadValue{"LUMORA_LOG_LEVEL", "6", "is no number from 0 to 5; 2 is taken"},
        BadValue{"LUMORA_LOG_LEVEL", "-1", "is no number from 0 to 5; 2 is taken"},
        BadValue{"LUMORA_LOG_LEVEL", "debug", "is no number from 0 to 5; 2 is taken"},
        BadValue{"LUMORA_LOG_LEVEL", "1 ", "is no number from 0 to 5; 2 is taken"},
        BadValue{"LUMORA_LOG_LEVEL", "99999999999999999999", "is no number from 0 to 5; 2 is taken"},
        BadValue{"LUMORA_LOG_FILE_SIZE", "4095", "is no number from 4096 to 1073741824; 1048576 is taken"},
        BadValue{"LUMORA_LOG_FILE_SIZE", "1M", "is no number from 4096 to 1073741824; 1048576 is taken"},
        BadValue{"LUMORA_LOG_FILE_SIZE", "-1", "is no number from 4096 to 1073741824; 1048576 is taken"},
        BadValue{"LUMORA_LOG_FILE_COUNT", "0", "is no number from 1 to 100; 3 is taken"},
        BadValue{"LUMORA_LOG_FILE_COUNT", "101", "is no number from 1 to 100; 3 is taken"},
        BadValue{"LUMORA_LOG_LIMIT", "-1", "is no number from 0 to 1000000; 30 is taken"},
        BadValue{"LUMORA_LOG_LIMIT", "none", "is no number from 0 to 1000000; 30 is taken"},
        BadValue{"LUMORA_LOG_SYSLOG", "yes", "is no number from 0 to 1; 0 is taken"}));

TEST(LogSettings, AnEmptyValueIsNone) {
    EXPECT_THAT(RunProbe({"levels"}, TextOnlyAnd({{"LUMORA_LOG_LEVEL", ""}, {"LUMORA_LOG_FILE", ""}})).err,
                ElementsAre("level 2", "level 3", "level 4", "level 5"));
}

TEST(LogSettings, AreNotReadBeforeTheFirstLine) {
    EXPECT_THAT(RunProbe({"nothing"}, {{"LUMORA_LOG_LEVEL", "much"}}).err, IsEmpty());
}

}  // namespace
