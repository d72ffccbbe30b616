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
        // A signal that was pending before belongs to the application and stays pending.
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
    // The kernel sends these two signals to the writing thread, so they are pending here. Consumes them
    // before the mask is restored; otherwise they would be delivered then and end the process.
    const timespec atOnce{};
    while (sigtimedwait(&mTaken, nullptr, &atOnce) > 0 || errno == EINTR) {
    }
    pthread_sigmask(SIG_SETMASK, &mMask, nullptr);
}

}  // namespace lumora_log
