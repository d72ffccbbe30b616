#include "hub/core/worker_process.h"

#include <spawn.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <system_error>

namespace lumora_hub {

namespace {

constexpr std::chrono::milliseconds LOOK_AGAIN{50};
// Longer than a worker takes to say goodbye to a device that does not answer.
constexpr std::chrono::seconds TIME_TO_END{5};
// The descriptor on which a worker expects its socket.
constexpr int WORKER_SOCKET = 3;
// The kernel allows less unless it was told otherwise.
constexpr int SOCKET_BUFFER = 4 << 20;

class FileActions {
public:
    explicit FileActions(int socket) {
        posix_spawn_file_actions_init(&mActions);
        posix_spawn_file_actions_adddup2(&mActions, socket, WORKER_SOCKET);
    }
    ~FileActions() { posix_spawn_file_actions_destroy(&mActions); }
    FileActions(const FileActions&) = delete;
    FileActions& operator=(const FileActions&) = delete;

    const posix_spawn_file_actions_t* Get() const { return &mActions; }

private:
    posix_spawn_file_actions_t mActions = {};
};

// The hub's threads block signals, which a program would inherit.
class Attributes {
public:
    Attributes() {
        sigset_t none;
        sigemptyset(&none);
        posix_spawnattr_init(&mAttributes);
        posix_spawnattr_setsigmask(&mAttributes, &none);
        posix_spawnattr_setflags(&mAttributes, POSIX_SPAWN_SETSIGMASK);
    }
    ~Attributes() { posix_spawnattr_destroy(&mAttributes); }
    Attributes(const Attributes&) = delete;
    Attributes& operator=(const Attributes&) = delete;

    const posix_spawnattr_t* Get() const { return &mAttributes; }

private:
    posix_spawnattr_t mAttributes = {};
};

void Check(int error, const char* what) {
    if (error != 0) {
        throw std::system_error(error, std::generic_category(), what);
    }
}

pid_t Spawn(const std::vector<std::string>& words, int socket) {
    std::vector<char*> arguments;
    arguments.reserve(words.size() + 1);
    for (const std::string& word : words) {
        arguments.push_back(const_cast<char*>(word.c_str()));
    }
    arguments.push_back(nullptr);
    pid_t process = -1;
    const FileActions actions(socket);
    const Attributes attributes;
    Check(posix_spawn(&process, words.front().c_str(), actions.Get(), attributes.Get(), arguments.data(),
                      environ),
          words.front().c_str());
    return process;
}

}  // namespace

// ---- Reaper

void Reaper::Add(pid_t process) {
    mProcesses.emplace_back(process, EventLoop::Clock::now() + TIME_TO_END);
    if (mProcesses.size() == 1) {
        mLoop.After(LOOK_AGAIN, [this] { Look(); });
    }
}

void Reaper::Look() {
    const EventLoop::Clock::time_point now = EventLoop::Clock::now();
    const auto hasEnded = [now](const auto& entry) {
        if (now >= entry.second) {
            kill(entry.first, SIGKILL);
        }
        return waitpid(entry.first, nullptr, WNOHANG) != 0;
    };
    mProcesses.erase(std::remove_if(mProcesses.begin(), mProcesses.end(), hasEnded), mProcesses.end());
    if (!mProcesses.empty()) {
        mLoop.After(LOOK_AGAIN, [this] { Look(); });
    }
}

// ---- WorkerProcess

WorkerProcess::WorkerProcess(EventLoop& loop, Reaper& reaper, const std::vector<std::string>& words,
                             Events events)
    : mLoop(loop),
      mReaper(reaper),
      mEvents(std::move(events)),
      mReader([this](Frame frame) { OnFrame(std::move(frame)); }) {
    std::array<int, 2> ends = {};
    Check(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends.data()) == 0 ? 0 : errno,
          "socketpair");
    mSocket = lumora::UniqueFd(ends[0]);
    const lumora::UniqueFd theirs(ends[1]);
    for (const int end : ends) {
        setsockopt(end, SOL_SOCKET, SO_SNDBUF, &SOCKET_BUFFER, sizeof(SOCKET_BUFFER));
    }
    mProcess = Spawn(words, theirs.Get());
    mLoop.Watch(mSocket.Get(), EPOLLIN, [this](std::uint32_t happened) { OnEvents(happened); });
}

WorkerProcess::~WorkerProcess() {
    if (mProcess >= 0) {
        mLoop.Forget(mSocket.Get());
        mSocket.Close();
        mReaper.Add(mProcess);
    }
}

void WorkerProcess::Send(std::string frame) {
    mWaiting.push_back(std::move(frame));
    if (mWaiting.size() == 1) {
        Write();
    }
}

void WorkerProcess::OnEvents(std::uint32_t events) {
    if ((events & EPOLLOUT) != 0) {
        Write();
    }
    if ((events & ~static_cast<std::uint32_t>(EPOLLOUT)) == 0) {
        return;
    }
    const FrameReader::Result result = mReader.Read(mSocket.Get());
    if (result == FrameReader::Result::BROKEN) {
        mText = "its worker sent what cannot be understood";
    }
    if (result != FrameReader::Result::WAITING || mHasEnded) {
        const auto onEnd = mEvents.onEnd;
        onEnd(mReason, std::string(mText));
    }
}

void WorkerProcess::OnFrame(Frame frame) {
    if (mHasEnded) {
        return;
    }
    if (frame.head.kind != FrameKind::ENDED) {
        mEvents.onFrame(std::move(frame));
        return;
    }
    mHasEnded = true;
    mReason = static_cast<EndReason>(
        std::min(frame.head.code, static_cast<std::uint8_t>(EndReason::CHANNEL_ENDED)));
    mText = std::move(frame.body);
}

// A worker that has died is noticed by reading.
void WorkerProcess::Write() {
    while (!mWaiting.empty()) {
        const std::string& frame = mWaiting.front();
        const ssize_t written =
            send(mSocket.Get(), frame.data() + mSent, frame.size() - mSent, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (written < 0) {
            break;
        }
        mSent += static_cast<std::size_t>(written);
        if (mSent == frame.size()) {
            mWaiting.pop_front();
            mSent = 0;
        }
    }
    mLoop.Change(mSocket.Get(), mWaiting.empty() ? EPOLLIN : EPOLLIN | EPOLLOUT);
}

}  // namespace lumora_hub
