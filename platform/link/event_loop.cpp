#include "event_loop.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/timerfd.h>

#include <algorithm>
#include <array>
#include <ctime>

#include "contain.h"

namespace lumora_link {

namespace {

// Seconds have 32 bits on some hosts. Who wakes early looks at the time and goes on waiting.
constexpr Clock::duration kLongestWait = std::chrono::hours(24);

void Drain(int fd) {
    std::uint64_t count = 0;
    [[maybe_unused]] const ssize_t bytes = read(fd, &count, sizeof count);
}

}  // namespace

bool EventLoop::Open() {
    epoll_ = UniqueFd(epoll_create1(EPOLL_CLOEXEC));
    wake_ = UniqueFd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    timer_ = UniqueFd(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK));
    if (!epoll_ || !wake_ || !timer_) {
        return false;
    }
    Watch(wake_.Get(), [this] { Drain(wake_.Get()); });
    Watch(timer_.Get(), [this] {
        Drain(timer_.Get());
        armed_ = TimePoint::max();
    });
    return true;
}

void EventLoop::Watch(int fd, Task onReadable) {
    watched_[fd] = std::move(onReadable);
    epoll_event event = {};
    event.events = EPOLLIN;
    event.data.fd = fd;
    epoll_ctl(epoll_.Get(), EPOLL_CTL_ADD, fd, &event);
}

void EventLoop::Unwatch(int fd) {
    watched_.erase(fd);
    epoll_ctl(epoll_.Get(), EPOLL_CTL_DEL, fd, nullptr);
}

void EventLoop::WakeAt(TimePoint deadline) {
    if (deadline == armed_) {
        return;
    }
    armed_ = deadline;
    itimerspec spec = {};
    if (deadline != TimePoint::max()) {
        // Zero would disarm the timer; a moment in the past must still fire.
        const auto left =
            std::clamp<Clock::duration>(deadline - Clock::now(), std::chrono::microseconds(1), kLongestWait);
        const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(left);
        spec.it_value.tv_sec = static_cast<std::time_t>(seconds.count());
        spec.it_value.tv_nsec = static_cast<long>(std::chrono::nanoseconds(left - seconds).count());
    }
    timerfd_settime(timer_.Get(), 0, &spec, nullptr);
}

void EventLoop::RunOnce() {
    std::array<epoll_event, 16> events = {};
    const int count = epoll_wait(epoll_.Get(), events.data(), static_cast<int>(events.size()), -1);
    RunPosted();
    for (int at = 0; at < count; ++at) {
        // A task may have taken others off the list; a copy keeps the running one alive.
        const auto watched = watched_.find(events[static_cast<std::size_t>(at)].data.fd);
        if (watched != watched_.end()) {
            const Task task = watched->second;
            Contain(task);
        }
    }
}

bool EventLoop::Post(Task task) {
    MutexLock lock(mutex_);
    if (shut_) {
        return false;
    }
    posted_.push_back(std::move(task));
    SignalWake();
    return true;
}

void EventLoop::Wake() {
    MutexLock lock(mutex_);
    if (!shut_) {
        SignalWake();
    }
}

void EventLoop::SignalWake() {
    const std::uint64_t one = 1;
    [[maybe_unused]] const ssize_t bytes = write(wake_.Get(), &one, sizeof one);
}

void EventLoop::Shut() {
    std::vector<Task> dropped;
    MutexLock lock(mutex_);
    shut_ = true;
    dropped.swap(posted_);
    epoll_ = UniqueFd();
    wake_ = UniqueFd();
    timer_ = UniqueFd();
}

void EventLoop::RunPosted() {
    std::vector<Task> tasks;
    {
        MutexLock lock(mutex_);
        tasks.swap(posted_);
    }
    for (const Task& task : tasks) {
        Contain(task);
    }
}

}  // namespace lumora_link
