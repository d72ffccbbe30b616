#include "bench/signal.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>

namespace lumora_bench {

void Fail(const std::string& what) {
    std::fprintf(stderr, "bench: %s\n", what.c_str());
    std::_Exit(2);
}

void Signal::Wait() {
    while (sem_wait(&mSemaphore) != 0 && errno == EINTR) {
    }
}

}  // namespace lumora_bench
