#include "process.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace lumora_test {

namespace {

// Bounds a failing test only.
constexpr int LIMIT_MS = 60'000;
constexpr int CANNOT_START = 127;

void CloseAll(const std::vector<int>& descriptors) {
    for (const int fd : descriptors) {
        close(fd);
    }
}

}  // namespace

bool Process::Stream::NextLine(std::string& line) {
    const std::size_t end = text.find('\n', seen);
    if (end == std::string::npos) {
        return false;
    }
    line = text.substr(seen, end - seen);
    seen = end + 1;
    return true;
}

void Process::Stream::ReadSome() {
    char bytes[4096];
    const ssize_t count = read(fd, bytes, sizeof(bytes));
    if (count <= 0) {
        Close();
        return;
    }
    text.append(bytes, static_cast<std::size_t>(count));
}

void Process::Stream::Close() {
    if (fd >= 0) {
        close(fd);
    }
    fd = -1;
}

Process::Process(const std::vector<std::string>& command) : mName(command.front()) {
    int input[2];
    int output[2];
    int errors[2];
    if (pipe2(input, O_CLOEXEC) != 0 || pipe2(output, O_CLOEXEC) != 0 || pipe2(errors, O_CLOEXEC) != 0) {
        ADD_FAILURE() << "no pipes for " << mName;
        return;
    }
    mInput = input[1];
    mOutput.fd = output[0];
    mErrors.fd = errors[0];
    Start(command, input[0], output[1], errors[1]);
    CloseAll({input[0], output[1], errors[1]});
}

Process::~Process() {
    if (mId > 0) {
        kill(mId, SIGKILL);
        Reap();
    }
    CloseInput();
    mOutput.Close();
    mErrors.Close();
    if (testing::Test::HasFailure()) {
        std::printf("---- %s, exit code %d\n%s---- standard error\n%s----\n", mName.c_str(), mExitCode,
                    Output().c_str(), Errors().c_str());
    }
}

void Process::Start(std::vector<std::string> command, int input, int output, int errors) {
    std::vector<char*> arguments;
    for (std::string& argument : command) {
        arguments.push_back(argument.data());
    }
    arguments.push_back(nullptr);
    const pid_t parent = getpid();
    mId = fork();
    if (mId != 0) {
        return;
    }
    // Should the test itself be killed, nothing stays behind.
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    // This test ignores it, and the programs must live without that.
    signal(SIGPIPE, SIG_DFL);
    const bool ready = getppid() == parent && dup2(input, STDIN_FILENO) >= 0 &&
                       dup2(output, STDOUT_FILENO) >= 0 && dup2(errors, STDERR_FILENO) >= 0;
    if (ready) {
        execv(arguments[0], arguments.data());
    }
    _exit(CANNOT_START);
}

std::string Process::WaitForLine(const std::string& start) {
    do {
        for (std::string line; mOutput.NextLine(line);) {
            if (line.rfind(start, 0) == 0) {
                return line;
            }
        }
    } while (ReadMore());
    ADD_FAILURE() << mName << " did not write \"" << start << "\"";
    return "";
}

void Process::WaitForLog(const std::string& text) {
    do {
        for (std::string line; mErrors.NextLine(line);) {
            if (line.find(text) != std::string::npos) {
                return;
            }
        }
    } while (ReadMore());
    ADD_FAILURE() << mName << " did not log \"" << text << "\"";
}

// False when both streams have ended, and when nothing comes.
bool Process::ReadMore() {
    pollfd waited[] = {{mOutput.fd, POLLIN, 0}, {mErrors.fd, POLLIN, 0}};
    const bool open = mOutput.fd >= 0 || mErrors.fd >= 0;
    if (!open || poll(waited, std::size(waited), LIMIT_MS) <= 0) {
        return false;
    }
    if (waited[0].revents != 0) {
        mOutput.ReadSome();
    }
    if (waited[1].revents != 0) {
        mErrors.ReadSome();
    }
    return true;
}

void Process::WriteLine(const std::string& line) {
    const std::string bytes = line + "\n";
    EXPECT_EQ(static_cast<ssize_t>(bytes.size()), write(mInput, bytes.data(), bytes.size())) << mName;
}

void Process::CloseInput() {
    if (mInput >= 0) {
        close(mInput);
    }
    mInput = -1;
}

void Process::Signal(int number) {
    if (mId > 0) {
        kill(mId, number);
    }
}

// Its streams end with it.
void Process::Halt() {
    Signal(SIGSTOP);
    siginfo_t info = {};
    waitid(P_PID, static_cast<id_t>(mId), &info, WSTOPPED | WEXITED | WNOWAIT);
}

bool Process::HasEnded() const {
    siginfo_t info = {};
    waitid(P_PID, static_cast<id_t>(mId), &info, WEXITED | WNOHANG | WNOWAIT);
    return info.si_pid != 0;
}

int Process::WaitForEnd() {
    while (ReadMore()) {
    }
    if (mOutput.fd >= 0 || mErrors.fd >= 0) {
        ADD_FAILURE() << mName << " did not end";
        Signal(SIGKILL);
    }
    Reap();
    return mExitCode;
}

void Process::Reap() {
    if (mId <= 0) {
        return;
    }
    int status = 0;
    waitpid(mId, &status, 0);
    mId = -1;
    mExitCode = WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

}  // namespace lumora_test
