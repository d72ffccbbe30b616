#include "transport/receive_wait.h"

#include <sys/select.h>
#include <sys/timerfd.h>

#include <algorithm>

namespace lumoraAiModule {

namespace {

// Without a timer a waiting thread has to look for itself whether it shall go on.
constexpr timeval LIMIT_WITHOUT_TIMER = {0, 500000};
constexpr timeval LIMIT_WITH_TIMER = {30, 0};

}  // namespace

ReceiveWait::ReceiveWait()
    : mTimer(Descriptor::Adopt(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK))) {}

ReceiveWait::Result ReceiveWait::ForData(const Descriptor& socket) {
    fd_set readable;
    FD_ZERO(&readable);
    FD_SET(socket.Number(), &readable);
    if (mTimer.IsOpen()) {
        FD_SET(mTimer.Number(), &readable);
    }
    timeval limit = mTimer.IsOpen() ? LIMIT_WITH_TIMER : LIMIT_WITHOUT_TIMER;
    mWaiting = true;
    const int ready =
        select(std::max(socket.Number(), mTimer.Number()) + 1, &readable, nullptr, nullptr, &limit);
    mWaiting = false;
    if (ready < 0) {
        return Result::FAILED;
    }
    if (ready > 0 && mTimer.IsOpen() && FD_ISSET(mTimer.Number(), &readable)) {
        // Before the flag: an EndSoon that finds the flag set relies on a timer that is still to come, and
        // its caller has seen this thread waiting, which it does no more.
        SetTimer(std::chrono::nanoseconds(0));
        mEndsSoon = false;
    }
    return ready > 0 && FD_ISSET(socket.Number(), &readable) ? Result::READABLE : Result::NOT_YET;
}

void ReceiveWait::EndSoon(std::chrono::microseconds delay) {
    if (!mEndsSoon.exchange(true)) {
        SetTimer(delay);
    }
}

// Setting a timer also takes back that it has run out: no read is needed.
void ReceiveWait::SetTimer(std::chrono::nanoseconds delay) {
    if (!mTimer.IsOpen()) {
        return;
    }
    itimerspec time = {};
    time.it_value.tv_nsec = static_cast<long>(delay.count());
    timerfd_settime(mTimer.Number(), 0, &time, nullptr);
}

}  // namespace lumoraAiModule
