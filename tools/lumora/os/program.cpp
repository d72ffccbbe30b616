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

// How often it is looked whether a process has ended: nothing else tells.
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

// What a child gets in place of what we have: signals as they are by default, a process group of its own, so
// that all it starts ends with it, and no descriptors of the libraries.
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

// With a variable twice, the first counts for some programs and the last for others.
void SetVariable(std::vector<std::string>& environment, const std::string& name, const std::string& value) {
    const std::string begin = name + '=';
    environment.erase(
        std::remove_if(environment.begin(), environment.end(),
                       [&](const std::string& entry) { return entry.compare(0, begin.size(), begin) == 0; }),
        environment.end());
    environment.push_back(begin + value);
}

int ExitCodeOf(int status) {
    return WIFSIGNALED(status) ? EXIT_BY_SIGNAL + WTERMSIG(status) : WEXITSTATUS(status);
}

void SetNonBlocking(const lumora::UniqueFd& fd) {
    fcntl(fd.Get(), F_SETFL, fcntl(fd.Get(), F_GETFL) | O_NONBLOCK);
}

// Without taking its exit code: its number stays its own.
bool IsRunning(pid_t id) {
    siginfo_t info = {};
    return waitid(P_PID, static_cast<id_t>(id), &info, WEXITED | WNOHANG | WNOWAIT) == 0 && info.si_pid == 0;
}

// One run, from the start to the end: feeds, reads, and sees that it ends.
class Runner {
public:
    Runner(const std::string& input, std::size_t mostOutput, Deadline deadline)
        : mInput(input), mMostOutput(mostOutput), mDeadline(deadline) {}

    ProgramRun Run(const std::string& command, const std::vector<std::string>& environment) {
        SpawnPlan plan;
        plan.Become(mIn.read, STDIN_FILENO);
        plan.Become(mOut.write, STDOUT_FILENO);
        const pid_t id = plan.Start({"/bin/sh", "-c", command}, environment);
        mIn.read.Close();
        mOut.write.Close();
        if (id < 0) {
            return mRun;
        }
        SetNonBlocking(mIn.write);
        SetNonBlocking(mOut.read);
        Attend(id);
        // Also what it has left running: nobody else would end it.
        kill(-id, SIGKILL);
        int status = 0;
        waitpid(id, &status, 0);
        mRun.exitCode = ExitCodeOf(status);
        return mRun;
    }

private:
    // Its output ends with the last of the processes that it has started; it may go on after that.
    void Attend(pid_t id) {
        while (mOut.read || IsRunning(id)) {
            pollfd watched[] = {
                {StopFd(), POLLIN, 0}, {mIn.write.Get(), POLLOUT, 0}, {mOut.read.Get(), POLLIN, 0}};
            poll(watched, std::size(watched), PollTime());
            if (watched[0].revents != 0 || Clock::now() >= mDeadline) {
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

    int PollTime() const {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(mDeadline - Clock::now());
        const int most = mOut.read ? 60'000 : EXIT_CHECK_MS;
        return static_cast<int>(std::clamp<std::chrono::milliseconds::rep>(left.count(), 0, most));
    }

    // A program need not read what it is given.
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
    mId = -1;
    return ExitCodeOf(status);
}

}  // namespace lumora_cli
