// Writing must not end the process, and its signal dispositions belong to the application.
#pragma once

#include <csignal>

namespace lumora_log {

// While one lives, a write of this thread into a closed pipe or beyond a file size limit fails with an error
// code and nothing else: the signals that would come with it are held back and taken away again.
class SignalShield {
public:
    SignalShield();
    ~SignalShield();
    SignalShield(const SignalShield&) = delete;
    SignalShield& operator=(const SignalShield&) = delete;

private:
    sigset_t mTaken;  // what a write may raise and nobody else had raised before
    sigset_t mMask;   // the thread's own mask
    bool mBlocked;
};

}  // namespace lumora_log
