// Keeps a failed write from ending the process. Signal handlers are not touched: they belong to the
// application.
#pragma once

#include <csignal>

namespace lumora_log {

// While one lives, a write of this thread to a closed pipe or beyond a file size limit fails with errno only.
// The signals that the kernel raises for it, SIGPIPE and SIGXFSZ, are blocked and then consumed.
class SignalShield {
public:
    SignalShield();
    ~SignalShield();
    SignalShield(const SignalShield&) = delete;
    SignalShield& operator=(const SignalShield&) = delete;

private:
    sigset_t mTaken;  // raised by our write, not pending before it
    sigset_t mMask;   // the thread's own mask
    bool mBlocked;
};

}  // namespace lumora_log
