#include "base/thread.h"

#include <pthread.h>

#include <utility>

namespace lumora {

AllSignalsBlocked::AllSignalsBlocked() {
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &mBefore);
}

AllSignalsBlocked::~AllSignalsBlocked() { pthread_sigmask(SIG_SETMASK, &mBefore, nullptr); }

std::thread StartThread(const char* name, std::function<void()> body) {
    // The destructor restores the caller's mask also if std::thread throws.
    const AllSignalsBlocked blocked;
    return std::thread([name, body = std::move(body)] {
        // Fails for more than 15 characters, and the thread then keeps the program's name.
        pthread_setname_np(pthread_self(), name);
        body();
    });
}

}  // namespace lumora
