#include "bench/signal.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <ctime>

namespace lumora_bench {

void Fail(const std::string& what) {
    std::fprintf(stderr, "bench: %s\n", what.c_str());
    std::_Exit(2);
}

void Signal::Wait() {
    while (sem_wait(&mSemaphore) != 0 && errno == EINTR) {
    }
}

void Signal::WaitOrFail(unsigned int milliseconds, const char* what) {
    constexpr unsigned int MILLISECONDS = 1000;
    constexpr long NANOSECONDS = 1000000000;
    timespec end = {};
    clock_gettime(CLOCK_MONOTONIC, &end);
    end.tv_sec += milliseconds / MILLISECONDS;
    end.tv_nsec += static_cast<long>(milliseconds % MILLISECONDS) * (NANOSECONDS / MILLISECONDS);
    if (end.tv_nsec >= NANOSECONDS) {
        end.tv_nsec -= NANOSECONDS;
        ++end.tv_sec;
    }
    int result = 0;
    do {
        result = sem_clockwait(&mSemaphore, CLOCK_MONOTONIC, &end);
    } while (result != 0 && errno == EINTR);
    if (result != 0) {
        Fail(what);
    }
}

}  // namespace lumora_bench
