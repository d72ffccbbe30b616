#include "bench/pipe.h"

namespace lumora_bench {

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
    if (name == "tcp-pair") {
        return MakeTcpPipe(TcpKind::FRAMED_PAIR);
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
