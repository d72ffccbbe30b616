#include "hub/core/event_loop.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <system_error>

namespace lumora_hub {

namespace {

constexpr std::chrono::milliseconds LONGEST_ROUND = std::chrono::minutes(1);
constexpr std::size_t EVENTS_OF_A_ROUND = 64;

void Control(int epoll, int operation, int fd, std::uint32_t events) {
    epoll_event event = {};
    event.events = events;
    event.data.fd = fd;
    if (epoll_ctl(epoll, operation, fd, &event) != 0) {
        throw std::system_error(errno, std::generic_category(), "epoll_ctl");
    }
}

}  // namespace

EventLoop::EventLoop() : mEpoll(epoll_create1(EPOLL_CLOEXEC)), mWake(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (!mEpoll || !mWake) {
        throw std::system_error(errno, std::generic_category(), "no event descriptor");
    }
    Watch(mWake.Get(), EPOLLIN, [this](std::uint32_t) {
        std::uint64_t count = 0;
        [[maybe_unused]] const ssize_t taken = read(mWake.Get(), &count, sizeof(count));
    });
}

void EventLoop::Watch(int fd, std::uint32_t events, std::function<void(std::uint32_t events)> onEvents) {
    Control(mEpoll.Get(), EPOLL_CTL_ADD, fd, events);
    mWatched[fd] = std::make_shared<const std::function<void(std::uint32_t)>>(std::move(onEvents));
}

void EventLoop::Change(int fd, std::uint32_t events) { Control(mEpoll.Get(), EPOLL_CTL_MOD, fd, events); }

void EventLoop::Forget(int fd) {
    if (mWatched.erase(fd) != 0) {
        Control(mEpoll.Get(), EPOLL_CTL_DEL, fd, 0);
    }
}

EventLoop::Timer EventLoop::After(std::chrono::milliseconds time, std::function<void()> onTime) {
    const Clock::time_point due = Clock::now() + time;
    mTimers.emplace(std::pair(due, ++mLastTimer), std::move(onTime));
    mDue[mLastTimer] = due;
    return mLastTimer;
}

void EventLoop::Cancel(Timer& timer) {
    const auto due = mDue.find(std::exchange(timer, 0));
    if (due != mDue.end()) {
        mTimers.erase({due->second, due->first});
        mDue.erase(due);
    }
}

void EventLoop::Post(std::function<void()> work) {
    bool isFirst = false;
    {
        const lumora::MutexLock lock(mMutex);
        isFirst = mPosted.empty();
        mPosted.push_back(std::move(work));
    }
    if (isFirst) {
        const std::uint64_t one = 1;
        [[maybe_unused]] const ssize_t written = write(mWake.Get(), &one, sizeof(one));  // cannot overflow
    }
}

void EventLoop::Run() {
    while (!mStop) {
        RunOnce(LONGEST_ROUND);
    }
}

void EventLoop::Stop() {
    Post([this] { mStop = true; });
}

void EventLoop::RunOnce(std::chrono::milliseconds longest) {
    std::array<epoll_event, EVENTS_OF_A_ROUND> events = {};
    const int count =
        epoll_wait(mEpoll.Get(), events.data(), static_cast<int>(events.size()), WaitTime(longest));
    for (int i = 0; i < count; ++i) {
        const epoll_event& event = events[static_cast<std::size_t>(i)];
        // An earlier function of this round may have forgotten it.
        const auto watched = mWatched.find(event.data.fd);
        if (watched != mWatched.end()) {
            const auto onEvents = watched->second;
            (*onEvents)(event.events);
        }
    }
    RunTimers();
    RunPosted();
}

int EventLoop::WaitTime(std::chrono::milliseconds longest) const {
    if (!mTimers.empty()) {
        const auto left = mTimers.begin()->first.first - Clock::now();
        // Rounded up: a timer that is not due yet would make the loop spin.
        longest = std::clamp(std::chrono::ceil<std::chrono::milliseconds>(left), std::chrono::milliseconds(0),
                             longest);
    }
    return static_cast<int>(longest.count());
}

void EventLoop::RunTimers() {
    const Clock::time_point now = Clock::now();
    while (!mTimers.empty() && mTimers.begin()->first.first <= now) {
        const auto timer = mTimers.extract(mTimers.begin());
        mDue.erase(timer.key().second);
        timer.mapped()();
    }
}

void EventLoop::RunPosted() {
    std::vector<std::function<void()>> posted;
    {
        const lumora::MutexLock lock(mMutex);
        posted.swap(mPosted);
    }
    for (const std::function<void()>& work : posted) {
        work();
    }
}

}  // namespace lumora_hub
