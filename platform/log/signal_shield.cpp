#include "signal_shield.h"

#include <pthread.h>

#include <cerrno>
#include <ctime>
#include <initializer_list>

namespace lumora_log {

SignalShield::SignalShield() {
    sigset_t pending;
    sigpending(&pending);
    sigset_t raisedByWrites;
    sigemptyset(&raisedByWrites);
    sigemptyset(&mTaken);
    for (const int signal : {SIGPIPE, SIGXFSZ}) {
        sigaddset(&raisedByWrites, signal);
        // One that waits already was sent to somebody who wants to see it.
        if (sigismember(&pending, signal) == 0) {
            sigaddset(&mTaken, signal);
        }
    }
    mBlocked = pthread_sigmask(SIG_BLOCK, &raisedByWrites, &mMask) == 0;
}

SignalShield::~SignalShield() {
    if (!mBlocked) {
        return;
    }
    const timespec atOnce{};
    while (sigtimedwait(&mTaken, nullptr, &atOnce) > 0 || errno == EINTR) {
    }
    pthread_sigmask(SIG_SETMASK, &mMask, nullptr);
}

}  // namespace lumora_log
