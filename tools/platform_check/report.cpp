#include "tools/platform_check/report.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <optional>
#include <utility>
#include <vector>

#include "tools/lumora/terminal/failure.h"
#include "tools/lumora/terminal/text.h"

namespace platform_check {

namespace {

using lumora_cli::EXIT_FAILED;
using lumora_cli::Failure;
using lumora_cli::SystemError;

// What a line begins with: a check that begins, and the three results.
constexpr char BEGINS = '.';
constexpr char HOLDS = '+';
constexpr char DEVIATES = '-';
constexpr char NOTE = '!';
constexpr char BETWEEN = '\x1f';

class Child {
public:
    explicit Child(const std::function<void(Report&)>& look);
    ~Child();
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    // Nothing at the end, and when it says nothing for so long.
    std::optional<std::string> NextLine(unsigned limitSeconds);
    // After NextLine gave nothing: how the process ended, or an empty text if it ended well. If it still
    // runs, the destructor kills it.
    std::string End();

private:
    pid_t mId = -1;
    lumora::UniqueFd mOutput;
    std::string mUnread;
    bool mAtEnd = false;
};

Child::Child(const std::function<void(Report&)>& look) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
        throw Failure(EXIT_FAILED, "there is no pipe: " + SystemError(errno));
    }
    mOutput = lumora::UniqueFd(ends[0]);
    // Closed in the parent at the end of this function, so that the end of the child ends the pipe.
    const lumora::UniqueFd input(ends[1]);
    mId = fork();
    if (mId < 0) {
        throw Failure(EXIT_FAILED, "there is no process: " + SystemError(errno));
    }
    if (mId == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        Report report(input.Get());
        look(report);
        // Without exit handlers and destructors: a broken library must not fail again after its checks.
        _exit(0);
    }
}

Child::~Child() {
    if (mId > 0) {
        // A library that hangs may ignore all other signals.
        kill(mId, SIGKILL);
        waitpid(mId, nullptr, 0);
    }
}

std::optional<std::string> Child::NextLine(unsigned limitSeconds) {
    constexpr int MILLISECONDS = 1000;
    std::size_t end = mUnread.find('\n');
    while (end == std::string::npos) {
        pollfd readable = {mOutput.Get(), POLLIN, 0};
        // The time limit counts from the last line: a slow check that goes on is no hang.
        if (poll(&readable, 1, static_cast<int>(limitSeconds) * MILLISECONDS) <= 0) {
            return std::nullopt;
        }
        char bytes[4096];
        const ssize_t count = read(mOutput.Get(), bytes, sizeof(bytes));
        if (count <= 0) {
            mAtEnd = true;
            return std::nullopt;
        }
        mUnread.append(bytes, static_cast<std::size_t>(count));
        end = mUnread.find('\n');
    }
    std::string line = mUnread.substr(0, end);
    mUnread.erase(0, end + 1);
    return line;
}

std::string Child::End() {
    if (!mAtEnd) {
        return "no end of it in the time given";
    }
    int status = 0;
    waitpid(std::exchange(mId, -1), &status, 0);
    if (WIFSIGNALED(status)) {
        return "the process ended by signal " + std::to_string(WTERMSIG(status)) + ", " +
               strsignal(WTERMSIG(status));
    }
    return WEXITSTATUS(status) == 0 ? ""
                                    : "the process ended with code " + std::to_string(WEXITSTATUS(status));
}

Finding Parsed(const std::string& line) {
    constexpr std::size_t FIELDS = 4;
    std::vector<std::string> fields = lumora_cli::Split(line.substr(1), BETWEEN);
    fields.resize(FIELDS);
    const Finding::Result result = line[0] == HOLDS  ? Finding::Result::HOLDS
                                   : line[0] == NOTE ? Finding::Result::NOTE
                                                     : Finding::Result::DEVIATES;
    return {result, fields[0], fields[1], fields[2], fields[3]};
}

}  // namespace

bool Report::Check(const std::string& rule, const std::string& expected,
                   const std::function<std::string()>& look) {
    Write(BEGINS, rule, expected, "");
    const std::string seen = look();
    Write(seen.empty() ? HOLDS : DEVIATES, rule, expected, seen);
    return seen.empty();
}

void Report::Note(const std::string& text) { Write(NOTE, text, "", ""); }

void Report::Write(char kind, const std::string& rule, const std::string& expected, const std::string& seen) {
    std::string line(1, kind);
    for (const std::string& field : {mArea, rule, expected, seen}) {
        line += lumora_cli::OneLine(field) + BETWEEN;
    }
    // One write for each line, shorter than PIPE_BUF in practice, so that a crash does not cut it.
    line.back() = '\n';
    // A failed write needs no report: no reader is left.
    if (write(mFd, line.data(), line.size()) != static_cast<ssize_t>(line.size())) {
        _exit(EXIT_FAILED);
    }
}

void RunApart(unsigned limitSeconds, const std::function<void(Report&)>& look,
              const std::function<void(const Finding&)>& take) {
    Child child(look);
    Finding begun = {Finding::Result::DEVIATES, "process", "stays alive", "an end of its own", ""};
    const Finding between = begun;
    while (const std::optional<std::string> line = child.NextLine(limitSeconds)) {
        const Finding finding = Parsed(*line);
        // Remembers the check that runs. If the process dies now, this check is the finding.
        if ((*line)[0] == BEGINS) {
            begun = finding;
        } else {
            take(finding);
            begun = between;
        }
    }
    begun.seen = child.End();
    if (!begun.seen.empty()) {
        take(begun);
    }
}

}  // namespace platform_check
