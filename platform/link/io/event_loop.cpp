#include "platform/link/io/event_loop.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/timerfd.h>

#include <algorithm>
#include <array>
#include <ctime>

#include "platform/link/io/run_guarded.h"

namespace lumora_link {

namespace {

// time_t has 32 bits on some hosts, so a wait is cut. The loop that wakes early checks the time and waits
// again.
constexpr Clock::duration LONGEST_WAIT = std::chrono::hours(24);

void Drain(int fd) {
    std::uint64_t count = 0;
    [[maybe_unused]] const ssize_t bytes = read(fd, &count, sizeof count);
}

}  // namespace

bool EventLoop::Open() {
    // A node needs three descriptors for the loop itself.
    mEpoll = lumora::UniqueFd(epoll_create1(EPOLL_CLOEXEC));
    mWake = lumora::UniqueFd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    mTimer = lumora::UniqueFd(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK));
    if (!mEpoll || !mWake || !mTimer) {
        return false;
    }
    Watch(mWake.Get(), [this] { Drain(mWake.Get()); });
    Watch(mTimer.Get(), [this] {
        Drain(mTimer.Get());
        mArmed = TimePoint::max();
    });
    return true;
}

void EventLoop::Watch(int fd, Task onReadable) {
    mWatched[fd] = std::move(onReadable);
    epoll_event event = {};
    event.events = EPOLLIN;
    event.data.fd = fd;
    epoll_ctl(mEpoll.Get(), EPOLL_CTL_ADD, fd, &event);
}

void EventLoop::Unwatch(int fd) {
    mWatched.erase(fd);
    epoll_ctl(mEpoll.Get(), EPOLL_CTL_DEL, fd, nullptr);
}

void EventLoop::WakeAt(TimePoint deadline) {
    if (deadline == mArmed) {
        return;
    }
    mArmed = deadline;
    itimerspec spec = {};
    if (deadline != TimePoint::max()) {
        // A value of zero disarms a timerfd. A deadline in the past must still fire, so it becomes 1 us.
        const auto left =
            std::clamp<Clock::duration>(deadline - Clock::now(), std::chrono::microseconds(1), LONGEST_WAIT);
        const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(left);
        spec.it_value.tv_sec = static_cast<std::time_t>(seconds.count());
        spec.it_value.tv_nsec = static_cast<long>(std::chrono::nanoseconds(left - seconds).count());
    }
    timerfd_settime(mTimer.Get(), 0, &spec, nullptr);
}

void EventLoop::RunOnce() {
    std::array<epoll_event, 16> events = {};
    // -1 after a signal of a debugger: the thread blocks all others. Posted work runs then too.
    const int count = epoll_wait(mEpoll.Get(), events.data(), static_cast<int>(events.size()), -1);
    RunPosted();
    for (int at = 0; at < count; ++at) {
        // An earlier task may have called Unwatch for this descriptor. The copy keeps a task alive that
        // unwatches itself.
        const auto watched = mWatched.find(events[static_cast<std::size_t>(at)].data.fd);
        if (watched != mWatched.end()) {
            const Task task = watched->second;
            RunGuarded(task);
        }
    }
}

// The task runs on the loop's thread. After Shut it is dropped, because no thread would run it.
bool EventLoop::Post(Task task) {
    lumora::MutexLock lock(mMutex);
    if (mShut) {
        return false;
    }
    mPosted.push_back(std::move(task));
    SignalWake();
    return true;
}

void EventLoop::Wake() {
    lumora::MutexLock lock(mMutex);
    if (!mShut) {
        SignalWake();
    }
}

// The lock keeps mWake open meanwhile: Shut closes it, and the number could belong to another file then.
void EventLoop::SignalWake() {
    const std::uint64_t one = 1;
    [[maybe_unused]] const ssize_t bytes = write(mWake.Get(), &one, sizeof one);
}

void EventLoop::Shut() {
    // Destroyed after the lock: a task may own objects whose destructors post again.
    std::vector<Task> dropped;
    lumora::MutexLock lock(mMutex);
    mShut = true;
    dropped.swap(mPosted);
    mEpoll = lumora::UniqueFd();
    mWake = lumora::UniqueFd();
    mTimer = lumora::UniqueFd();
}

void EventLoop::RunPosted() {
    // Taken out at once, so that other threads can post while tasks run and each task runs without the lock.
    std::vector<Task> tasks;
    {
        lumora::MutexLock lock(mMutex);
        tasks.swap(mPosted);
    }
    for (const Task& task : tasks) {
        RunGuarded(task);
    }
}

}  // namespace lumora_link
