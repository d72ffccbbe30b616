#include "base/thread.h"

#include <pthread.h>

#include <utility>

namespace lumora {

// The mask is set in the thread that starts the other one. Setting it in the new thread would leave a moment
// in which a signal of the application runs its handler there, on a stack and with locks that it does not
// expect.
AllSignalsBlocked::AllSignalsBlocked() {
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &mBefore);
}

AllSignalsBlocked::~AllSignalsBlocked() { pthread_sigmask(SIG_SETMASK, &mBefore, nullptr); }

// The new thread names itself, so that it has its name before body runs.
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
