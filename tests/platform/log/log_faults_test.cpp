// Whatever happens to the place that the lines go to, the process goes on.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <fstream>
#include <string>

#include "probe_run.h"

namespace {

using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::MatchesRegex;
using ::testing::StartsWith;

class Pipe {
public:
    Pipe() { EXPECT_EQ(pipe2(mEnds.data(), O_CLOEXEC), 0); }
    ~Pipe() {
        CloseReader();
        close(mEnds[1]);
    }
    Pipe(const Pipe&) = delete;
    Pipe& operator=(const Pipe&) = delete;

    int Writer() const { return mEnds[1]; }
    void CloseReader() {
        if (mEnds[0] >= 0) {
            close(mEnds[0]);
        }
        mEnds[0] = -1;
    }

private:
    std::array<int, 2> mEnds{-1, -1};
};

const Variables EVERY_LINE{{"LUMORA_LOG_LIMIT", "0"}};

Variables LogTo(const std::string& file) {
    return {{"LUMORA_LOG_PATTERN", "%v"}, {"LUMORA_LOG_FILE", file}, {"LUMORA_LOG_LIMIT", "0"}};
}

TEST(LogFault, AClosedPipeEndsNoProcess) {
    Pipe pipe;
    pipe.CloseReader();
    EXPECT_EQ(RunProbe({"broken-pipe"}, EVERY_LINE, pipe.Writer()).exitCode, 0);
}

TEST(LogFault, ASignalThatTheApplicationHoldsBackStaysItsOwn) {
    Pipe pipe;
    pipe.CloseReader();
    EXPECT_EQ(RunProbe({"pending-signal"}, {}, pipe.Writer()).exitCode, 0);
}

TEST(LogFault, AReaderThatDoesNotReadBlocksNoWriterForEver) {
    const Pipe pipe;
    EXPECT_EQ(RunProbe({"stalled-reader"}, EVERY_LINE, pipe.Writer()).exitCode, 0);
}

TEST(LogFault, ClosedStandardErrorIsNoFault) {
    const int closedInChild = open("/dev/null", O_RDONLY | O_CLOEXEC);
    EXPECT_EQ(RunProbe({"many", "10"}, EVERY_LINE, closedInChild).exitCode, 0);
    close(closedInChild);
}

TEST(LogFault, AFullDeviceBehindStandardErrorLosesLines) {
    const int full = open("/dev/full", O_WRONLY | O_CLOEXEC);
    EXPECT_EQ(RunProbe({"many", "100"}, EVERY_LINE, full).exitCode, 0);
    close(full);
}

TEST(LogFault, AFullDeviceAsFileLosesLinesAndIsNamedOnce) {
    const ProbeResult probe = RunProbe({"many", "5000"}, LogTo("/dev/full"));
    EXPECT_EQ(probe.exitCode, 0);
    EXPECT_THAT(probe.err, ElementsAre(AllOf(StartsWith("link_log: LUMORA_LOG_FILE: \"/dev/full\""),
                                             HasSubstr("No space left on device; log lines are lost"))));
    struct stat status {};
    EXPECT_EQ(stat("/dev/full", &status), 0);
    EXPECT_TRUE(S_ISCHR(status.st_mode)) << "the device was put aside like a file";
}

TEST(LogFault, AFileSizeLimitLosesLines) {
    const TemporaryFolder folder;
    const ProbeResult probe = RunProbe({"file-size-limit"}, LogTo(folder.Path("log.txt")));
    EXPECT_EQ(probe.exitCode, 0);
    EXPECT_THAT(probe.err, ElementsAre(HasSubstr("File too large; log lines are lost")));
}

TEST(LogFault, AFolderThatVanishesIsWrittenToAgainWhenItIsBack) {
    const TemporaryFolder folder;
    const std::string logs = folder.Path("logs");
    ASSERT_EQ(mkdir(logs.c_str(), 0700), 0);
    Variables variables = LogTo(logs + "/log.txt");
    variables["LUMORA_LOG_FILE_SIZE"] = "4096";
    const ProbeResult probe = RunProbe({"vanishing-folder", logs}, variables);
    EXPECT_EQ(probe.exitCode, 0);
    EXPECT_THAT(probe.err, ElementsAre(HasSubstr("log lines are lost")));
    EXPECT_THAT(Lines(ReadFile(logs + "/log.txt")).front(), MatchesRegex("[0-9]+ log lines were lost"));
}

TEST(LogFault, AFileThatCannotBeOpenedLeavesStandardError) {
    const TemporaryFolder folder;
    std::ofstream(folder.Path("file")) << "in the way";
    const std::string impossible = folder.Path("file/log.txt");
    EXPECT_THAT(
        RunProbe({"text", "hello"}, LogTo(impossible)).err,
        ElementsAre(AllOf(HasSubstr(impossible), HasSubstr("Not a directory; standard error is taken")),
                    "hello"));
}

TEST(LogFault, AMissingFolderIsNotMade) {
    const TemporaryFolder folder;
    const std::string missing = folder.Path("logs");
    EXPECT_THAT(RunProbe({"text", "hello"}, LogTo(missing + "/log.txt")).err,
                ElementsAre(AllOf(HasSubstr("is in a folder that cannot be used: No such file or directory"),
                                  HasSubstr("standard error is taken")),
                            "hello"));
    struct stat status {};
    EXPECT_NE(stat(missing.c_str(), &status), 0);
}

TEST(LogFault, AChildThatIsForkedWhileOthersLogCanLog) {
    EXPECT_EQ(RunProbe({"fork-while-logging"}, LogTo("/dev/null")).exitCode, 0);
}

TEST(LogFault, AFolderIsNoLogFile) {
    const TemporaryFolder folder;
    EXPECT_THAT(RunProbe({"text", "hello"}, LogTo(folder.Path(""))).err,
                ElementsAre(HasSubstr("Is a directory; standard error is taken"), "hello"));
}

TEST(LogFault, APipeIsNoLogFile) {
    const TemporaryFolder folder;
    const std::string path = folder.Path("fifo");
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    EXPECT_THAT(RunProbe({"text", "without a reader"}, LogTo(path)).err,
                ElementsAre(HasSubstr("standard error is taken"), "without a reader"));
    const int reader = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    EXPECT_THAT(RunProbe({"text", "with a reader"}, LogTo(path)).err,
                ElementsAre(HasSubstr("is no file; standard error is taken"), "with a reader"));
    close(reader);
}

}  // namespace
