#include "transport/receive_wait.h"

#include <sys/select.h>
#include <sys/timerfd.h>

#include <algorithm>

namespace lumoraAiModule {

namespace {

// Without a timer no other thread can end the wait. Half a second is then how late a stop or a failed send is
// noticed. With a timer the limit is only a second line of defence, and an idle channel wakes up twice a
// minute.
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
        // This may also disarm an end that was asked for meanwhile. The thread that asked had set a flag
        // before, and this thread looks at the flags before it waits again.
        SetTimer(std::chrono::nanoseconds(0));
    }
    return ready > 0 && FD_ISSET(socket.Number(), &readable) ? Result::READABLE : Result::NOT_YET;
}

// Setting a timer clears its expiry, so its descriptor is no longer readable and no read is needed. A setting
// of 0 disarms it; that is why End uses 1 ns.
void ReceiveWait::SetTimer(std::chrono::nanoseconds delay) {
    if (!mTimer.IsOpen()) {
        return;
    }
    itimerspec time = {};
    time.it_value.tv_nsec = static_cast<long>(delay.count());
    timerfd_settime(mTimer.Number(), 0, &time, nullptr);
}

}  // namespace lumoraAiModule
