// A worker: its process and the socket to it.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <deque>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "base/unique_fd.h"
#include "hub/core/event_loop.h"
#include "hub/worker/frame_reader.h"

namespace lumora_hub {

// Collects processes that end by themselves, and kills those that do not.
class Reaper {
public:
    explicit Reaper(EventLoop& loop) : mLoop(loop) {}

    void Add(pid_t process);
    bool IsEmpty() const { return mProcesses.empty(); }

private:
    void Look();

    EventLoop& mLoop;
    std::vector<std::pair<pid_t, EventLoop::Clock::time_point>> mProcesses;  // until when they have time
};

// For the hub's thread. Its end closes the socket, which ends the process.
class WorkerProcess {
public:
    struct Events {
        // Must not destroy the object.
        std::function<void(Frame frame)> onFrame;
        // The last call, which may destroy the object. code and text are those of its last frame, or tell
        // that it died.
        std::function<void(EndReason reason, const std::string& text)> onEnd;
    };

    // Throws std::system_error if the process cannot be started.
    WorkerProcess(EventLoop& loop, Reaper& reaper, const std::vector<std::string>& words, Events events);
    ~WorkerProcess();
    WorkerProcess(const WorkerProcess&) = delete;
    WorkerProcess& operator=(const WorkerProcess&) = delete;

    void Send(std::string frame);
    // Frames that wait because the process does not read.
    std::size_t Unread() const { return mWaiting.size(); }
    pid_t Process() const { return mProcess; }

private:
    void OnEvents(std::uint32_t events);
    void OnFrame(Frame frame);
    void Write();

    EventLoop& mLoop;
    Reaper& mReaper;
    Events mEvents;
    lumora::UniqueFd mSocket;
    pid_t mProcess = -1;
    FrameReader mReader;
    std::deque<std::string> mWaiting;
    std::size_t mSent = 0;  // bytes of the first one
    bool mHasEnded = false;
    EndReason mReason = EndReason::CONNECT_FAILED;
    std::string mText = "its worker has died";
};

}  // namespace lumora_hub
