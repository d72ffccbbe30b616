// The hub's thread: waits for sockets, timers and work that other threads post.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <utility>
#include <vector>

#include "base/mutex.h"
#include "base/unique_fd.h"

namespace lumora_hub {

// Post and Stop may be called by any thread, everything else by the one that runs the loop, or before it
// runs.
class EventLoop {
public:
    using Clock = std::chrono::steady_clock;
    using Timer = std::uint64_t;  // 0 is none

    // Throws std::system_error.
    EventLoop();
    EventLoop(const EventLoop&) = delete;
    EventLoop& operator=(const EventLoop&) = delete;

    // onEvents gets epoll's events. It may forget any descriptor, its own included.
    void Watch(int fd, std::uint32_t events, std::function<void(std::uint32_t events)> onEvents);
    void Change(int fd, std::uint32_t events);
    void Forget(int fd);

    Timer After(std::chrono::milliseconds time, std::function<void()> onTime);
    // Sets timer to 0. A timer that has run is left alone.
    void Cancel(Timer& timer);

    void Post(std::function<void()> work);

    // Returns after Stop. Work that was posted before is done first.
    void Run();
    void Stop();
    // One round, of at most this time. For the end, when Run has returned.
    void RunOnce(std::chrono::milliseconds longest);

private:
    using Timers = std::map<std::pair<Clock::time_point, Timer>, std::function<void()>>;

    int WaitTime(std::chrono::milliseconds longest) const;
    void RunTimers();
    void RunPosted();

    const lumora::UniqueFd mEpoll;
    const lumora::UniqueFd mWake;
    // Shared, so that a function lives while it runs.
    std::map<int, std::shared_ptr<const std::function<void(std::uint32_t)>>> mWatched;
    Timers mTimers;
    std::map<Timer, Clock::time_point> mDue;
    Timer mLastTimer = 0;
    bool mStop = false;

    lumora::Mutex mMutex;  // a leaf lock
    std::vector<std::function<void()>> mPosted GUARDED_BY(mMutex);
};

}  // namespace lumora_hub
