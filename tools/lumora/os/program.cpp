#include "tools/lumora/os/program.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>

#include "base/unique_fd.h"
#include "tools/lumora/os/signals.h"
#include "tools/lumora/os/waiting.h"
#include "tools/lumora/terminal/failure.h"

namespace lumora_cli {

namespace {

// How often to check whether a process has ended. pidfd_open would report it, but only from Linux 5.3 on.
constexpr int EXIT_CHECK_MS = 5;

struct Pipe {
    Pipe() {
        int ends[2];
        if (pipe2(ends, O_CLOEXEC) != 0) {
            throw Failure(EXIT_FAILED, "no pipe: " + SystemError(errno));
        }
        read = lumora::UniqueFd(ends[0]);
        write = lumora::UniqueFd(ends[1]);
    }

    lumora::UniqueFd read;
    lumora::UniqueFd write;
};

// What a child does not inherit from us. Its signals have their default handlers and none is blocked. It
// leads a process group, so that one kill() reaches all that it starts. It gets no descriptors of the
// libraries.
class SpawnPlan {
public:
    SpawnPlan() {
        posix_spawn_file_actions_init(&mActions);
        posix_spawnattr_init(&mAttributes);
        sigset_t none;
        sigset_t all;
        sigemptyset(&none);
        sigfillset(&all);
        posix_spawnattr_setsigmask(&mAttributes, &none);
        posix_spawnattr_setsigdefault(&mAttributes, &all);
        posix_spawnattr_setpgroup(&mAttributes, 0);
        posix_spawnattr_setflags(&mAttributes,
                                 POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETPGROUP);
    }
    ~SpawnPlan() {
        posix_spawn_file_actions_destroy(&mActions);
        posix_spawnattr_destroy(&mAttributes);
    }
    SpawnPlan(const SpawnPlan&) = delete;
    SpawnPlan& operator=(const SpawnPlan&) = delete;

    void Become(const lumora::UniqueFd& ours, int theirs) {
        posix_spawn_file_actions_adddup2(&mActions, ours.Get(), theirs);
    }
    void Silence(int theirs) { posix_spawn_file_actions_addopen(&mActions, theirs, "/dev/null", O_RDWR, 0); }

    // -1 when it cannot be started.
    pid_t Start(const std::vector<std::string>& words, const std::vector<std::string>& environment) {
        // Libraries may hold descriptors without close-on-exec. Closes all but the standard ones.
        posix_spawn_file_actions_addclosefrom_np(&mActions, STDERR_FILENO + 1);
        std::vector<char*> argumentPointers = Pointers(words);
        std::vector<char*> environmentPointers = Pointers(environment);
        pid_t id = -1;
        const int error = posix_spawn(&id, words.front().c_str(), &mActions, &mAttributes,
                                      argumentPointers.data(), environmentPointers.data());
        return error == 0 ? id : -1;
    }

private:
    static std::vector<char*> Pointers(const std::vector<std::string>& texts) {
        std::vector<char*> pointers;
        pointers.reserve(texts.size() + 1);
        for (const std::string& text : texts) {
            // posix_spawn takes char* for historical reasons and does not write to them.
            pointers.push_back(const_cast<char*>(text.c_str()));
        }
        pointers.push_back(nullptr);
        return pointers;
    }

    posix_spawn_file_actions_t mActions;
    posix_spawnattr_t mAttributes;
};

std::vector<std::string> OurEnvironment() {
    std::vector<std::string> variables;
    for (char** variable = environ; *variable != nullptr; ++variable) {
        variables.emplace_back(*variable);
    }
    return variables;
}

// Replaces a variable. If it stood twice, some programs would use the first and others the last.
void SetVariable(std::vector<std::string>& environment, const std::string& name, const std::string& value) {
    const std::string begin = name + '=';
    environment.erase(
        std::remove_if(environment.begin(), environment.end(),
                       [&](const std::string& entry) { return entry.compare(0, begin.size(), begin) == 0; }),
        environment.end());
    environment.push_back(begin + value);
}

int ExitCodeOf(int status) {
    // As shells tell it.
    return WIFSIGNALED(status) ? EXIT_BY_SIGNAL + WTERMSIG(status) : WEXITSTATUS(status);
}

void SetNonBlocking(const lumora::UniqueFd& fd) {
    fcntl(fd.Get(), F_SETFL, fcntl(fd.Get(), F_GETFL) | O_NONBLOCK);
}

// WNOWAIT leaves the exit status unread, so the kernel does not give the process number to another process
// yet.
bool IsRunning(pid_t id) {
    siginfo_t info = {};
    return waitid(P_PID, static_cast<id_t>(id), &info, WEXITED | WNOHANG | WNOWAIT) == 0 && info.si_pid == 0;
}

// One run of a program: writes its input, reads its output, and ends it.
class Runner {
public:
    Runner(const std::string& input, std::size_t mostOutput, Deadline deadline)
        : mInput(input), mMostOutput(mostOutput), mDeadline(deadline) {}

    ProgramRun Run(const std::string& command, const std::vector<std::string>& environment) {
        SpawnPlan plan;
        plan.Become(mIn.read, STDIN_FILENO);
        // Pipes are close-on-exec: the child keeps only the ends that it got as standard descriptors.
        plan.Become(mOut.write, STDOUT_FILENO);
        const pid_t id = plan.Start({"/bin/sh", "-c", command}, environment);
        // The child's ends. While we hold them, neither side could see the end of a pipe.
        mIn.read.Close();
        mOut.write.Close();
        if (id < 0) {
            return mRun;
        }
        // Two blocking pipes can deadlock: the child waits for us to read while we wait for it to read.
        SetNonBlocking(mIn.write);
        SetNonBlocking(mOut.read);
        Attend(id);
        // Kills the whole process group: processes that the program left running have no other parent that
        // ends them.
        kill(-id, SIGKILL);
        int status = 0;
        // Returns at once or soon: SIGKILL cannot be blocked.
        waitpid(id, &status, 0);
        mRun.exitCode = ExitCodeOf(status);
        return mRun;
    }

private:
    // The pipe ends when the last process that holds it ends. The program itself may run on without an
    // output.
    void Attend(pid_t id) {
        while (mOut.read || IsRunning(id)) {
            pollfd watched[] = {
                {StopFd(), POLLIN, 0}, {mIn.write.Get(), POLLOUT, 0}, {mOut.read.Get(), POLLIN, 0}};
            poll(watched, std::size(watched), WaitTime());
            if (watched[0].revents != 0 || Clock::now() >= mDeadline) {
                // The caller kills the process group after this.
                mRun.end = watched[0].revents != 0 ? ProgramRun::End::STOPPED : ProgramRun::End::LATE;
                return;
            }
            if (watched[1].revents != 0) {
                Feed();
            }
            if (watched[2].revents != 0 && !Read()) {
                mRun.end = ProgramRun::End::TOO_MUCH;
                return;
            }
        }
        mRun.end = ProgramRun::End::EXITED;
    }

    // After the output has ended nothing wakes poll when the process ends, so it checks often.
    int WaitTime() const {
        return PollTime(mDeadline, std::chrono::milliseconds(mOut.read ? 60'000 : EXIT_CHECK_MS));
    }

    // A program may end or close its input without reading all of it: EPIPE is no failure.
    void Feed() {
        const ssize_t count = write(mIn.write.Get(), mInput.data() + mFed, mInput.size() - mFed);
        if (count < 0 && (errno == EAGAIN || errno == EINTR)) {
            return;
        }
        mFed += static_cast<std::size_t>(std::max<ssize_t>(count, 0));
        if (count < 0 || mFed == mInput.size()) {
            mIn.write.Close();
        }
    }

    bool Read() {
        char bytes[65536];
        const ssize_t count = read(mOut.read.Get(), bytes, sizeof(bytes));
        if (count < 0 && (errno == EAGAIN || errno == EINTR)) {
            return true;
        }
        if (count <= 0) {
            mOut.read.Close();
            return true;
        }
        mRun.output.append(bytes, static_cast<std::size_t>(count));
        return mRun.output.size() <= mMostOutput;
    }

    const std::string& mInput;
    const std::size_t mMostOutput;
    const Deadline mDeadline;
    Pipe mIn;
    Pipe mOut;
    std::size_t mFed = 0;
    ProgramRun mRun;
};

}  // namespace

ProgramRun RunProgram(const std::string& command, const std::string& input,
                      const std::vector<std::pair<std::string, std::string>>& environment,
                      std::size_t mostOutput, std::chrono::milliseconds timeout) {
    std::vector<std::string> variables = OurEnvironment();
    for (const auto& [name, value] : environment) {
        SetVariable(variables, name, value);
    }
    return Runner(input, mostOutput, In(timeout)).Run(command, variables);
}

// ---- Child

Child::Child(const std::vector<std::string>& words) {
    Pipe out;
    SpawnPlan plan;
    plan.Silence(STDIN_FILENO);
    plan.Become(out.write, STDOUT_FILENO);
    plan.Silence(STDERR_FILENO);
    mId = plan.Start(words, OurEnvironment());
    mOutput = std::move(out.read);
}

Child::~Child() {
    if (mId > 0) {
        kill(mId, SIGKILL);
        waitpid(mId, nullptr, 0);
    }
}

void Child::End() {
    if (mId > 0) {
        // The child may clean up. Wait or the destructor kills it if it does not end.
        kill(mId, SIGTERM);
    }
}

std::string Child::NextLine(std::chrono::milliseconds timeout) {
    const Deadline deadline = In(timeout);
    while (mOutput) {
        const std::size_t end = mRest.find('\n');
        if (end != std::string::npos) {
            std::string line = mRest.substr(0, end);
            mRest.erase(0, end + 1);
            return line;
        }
        if (lumora_cli::Wait(mOutput.Get(), deadline) != Woken::READY) {
            return "";
        }
        char bytes[4096];
        const ssize_t count = read(mOutput.Get(), bytes, sizeof(bytes));
        if (count <= 0) {
            mOutput.Close();
        }
        mRest.append(bytes, static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
    }
    return "";
}

int Child::Wait(std::chrono::milliseconds timeout) {
    const Deadline deadline = In(timeout);
    while (mId > 0 && IsRunning(mId)) {
        if (Clock::now() >= deadline || !PauseUnlessStopped(EXIT_CHECK_MS)) {
            return -1;
        }
    }
    if (mId <= 0) {
        return -1;
    }
    int status = 0;
    waitpid(mId, &status, 0);
    // The kernel may give the number to another process now, so it must not be used again.
    mId = -1;
    return ExitCodeOf(status);
}

}  // namespace lumora_cli
