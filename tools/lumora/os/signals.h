// The wish to end: Ctrl-C, and what a service manager sends.
#pragma once

#include <thread>

#include "base/unique_fd.h"

namespace lumora_cli {

// One object, made before any other thread: they inherit its signal mask. A second signal ends the process at
// once, for whoever does not want to wait for a device that does not answer.
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

// Ends a command that has something to finish; endless ones end well and do not ask.
void ThrowWhenStopped();

// Sleeps; false when a signal came.
bool PauseUnlessStopped(int milliseconds);

}  // namespace lumora_cli
