// Threads that leave signals to the application.
#pragma once

#include <csignal>
#include <functional>
#include <thread>

namespace lumora {

// Blocks every signal in the calling thread while it lives. A thread that is started meanwhile inherits the
// mask for good, so no handler of the application ever runs on it.
class AllSignalsBlocked {
public:
    AllSignalsBlocked();
    ~AllSignalsBlocked();
    AllSignalsBlocked(const AllSignalsBlocked&) = delete;
    AllSignalsBlocked& operator=(const AllSignalsBlocked&) = delete;

private:
    sigset_t mBefore;
};

// Starts a thread that blocks every signal. name: at most 15 characters, a string literal; ps -T and
// debuggers show it. Throws std::system_error if the system refuses a thread.
std::thread StartThread(const char* name, std::function<void()> body);

}  // namespace lumora
