// Lets threads of a bench wait for each other, up to a time limit.
#pragma once

#include <semaphore.h>

#include <string>

namespace lumora_bench {

[[noreturn]] void Fail(const std::string& what);

// Lets a thread wait for a callback on another one.
class Signal {
public:
    Signal() { sem_init(&mSemaphore, 0, 0); }
    ~Signal() { sem_destroy(&mSemaphore); }
    Signal(const Signal&) = delete;
    Signal& operator=(const Signal&) = delete;
    void Raise() { sem_post(&mSemaphore); }
    void Wait();
    // The same, but ends the program with Fail(what) if the signal does not come within the time.
    void WaitOrFail(unsigned int milliseconds, const char* what);

private:
    sem_t mSemaphore;
};

}  // namespace lumora_bench
