#include "bench/pipe.h"

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

std::unique_ptr<Pipe> MakePipe(const std::string& name) {
    if (name == "lumora") {
        return MakeLumoraPipe();
    }
    if (name == "tcp-framed") {
        return MakeTcpPipe(TcpKind::FRAMED);
    }
    if (name == "tcp-direct") {
        return MakeTcpPipe(TcpKind::FRAMED_DIRECT);
    }
    if (name == "tcp-unframed") {
        return MakeTcpPipe(TcpKind::UNFRAMED);
    }
#ifdef LUMORA_BENCH_ZMQ
    if (name == "zmq-pushpull" || name == "zmq-pair") {
        return MakeZmqPipe(name == "zmq-pair");
    }
#endif
#ifdef LUMORA_BENCH_NNG
    if (name == "nng-pushpull" || name == "nng-pair") {
        return MakeNngPipe(name == "nng-pair");
    }
#endif
    Fail("no such pipe: " + name);
}

}  // namespace lumora_bench
