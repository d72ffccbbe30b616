// Signals that ask this program to end: Ctrl-C, and those of a service manager.
#pragma once

#include <thread>

#include "base/unique_fd.h"

namespace lumora_cli {

// Construct one object before any other thread starts: threads inherit its signal mask. A first signal sets
// the stop. A second one ends the process at once, for a user who does not want to wait for a device that
// does not answer.
class StopSignals {
public:
    StopSignals();
    ~StopSignals();
    StopSignals(const StopSignals&) = delete;
    StopSignals& operator=(const StopSignals&) = delete;

private:
    void Run();

    std::thread mThread;
};

// The signal that came, or 0.
int StopSignal();

// Readable once a signal has come.
int StopFd();

// Throws a QuietEnd if a signal came. For commands that a signal interrupts; endless commands end with
// success instead and do not call it.
void ThrowWhenStopped();

// Sleeps; false if a signal came meanwhile.
bool PauseUnlessStopped(int milliseconds);

}  // namespace lumora_cli
