#include "bench/pipe.h"

namespace lumora_bench {

const char* const PIPES =
    "lumora tcp-framed tcp-direct tcp-pair tcp-unframed"
#ifdef LUMORA_BENCH_ZMQ
    " zmq-pushpull zmq-pair"
#endif
#ifdef LUMORA_BENCH_NNG
    " nng-pushpull nng-pair"
#endif
#ifdef LUMORA_BENCH_DDS
    " dds"
#endif
#ifdef LUMORA_BENCH_MQTT
    " mqtt"
#endif
    ;

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
#ifdef LUMORA_BENCH_DDS
    if (name == "dds") {
        return MakeDdsPipe();
    }
#endif
#ifdef LUMORA_BENCH_MQTT
    if (name == "mqtt") {
        return MakeMqttPipe();
    }
#endif
    Fail("no such pipe: " + name);
}

}  // namespace lumora_bench
