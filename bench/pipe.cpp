#include "bench/pipe.h"

namespace lumora_bench {

namespace {

constexpr const char* BUILT_PIPES =
    "lumora tcp-framed tcp-direct tcp-pair tcp-unframed"
#ifdef LUMORA_BENCH_ZMQ
    " zmq-pushpull zmq-pair zmq-curve"
#endif
#ifdef LUMORA_BENCH_NNG
    " nng-pushpull nng-pair"
#endif
#ifdef LUMORA_BENCH_DDS
    " dds"
#endif
#ifdef LUMORA_BENCH_MQTT
    " mqtt mqtt-tls"
#endif
#ifdef LUMORA_BENCH_TLS
    " tcp-tls"
#endif
    ;

}  // namespace

std::string Pipes() { return std::string(BUILT_PIPES) + (CanBePrivate() ? " lumora-private" : ""); }

std::unique_ptr<Pipe> MakePipe(const std::string& name) {
    if (name == "lumora" || name == "lumora-private") {
        return MakeLumoraPipe(name == "lumora-private");
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
#ifdef LUMORA_BENCH_TLS
    if (name == "tcp-tls") {
        return MakeTcpPipe(TcpKind::FRAMED_TLS);
    }
#endif
#ifdef LUMORA_BENCH_ZMQ
    if (name == "zmq-pushpull") {
        return MakeZmqPipe(ZmqKind::PUSH_PULL);
    }
    if (name == "zmq-pair" || name == "zmq-curve") {
        return MakeZmqPipe(name == "zmq-pair" ? ZmqKind::PAIR : ZmqKind::CURVE);
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
    if (name == "mqtt" || name == "mqtt-tls") {
        return MakeMqttPipe(name == "mqtt-tls");
    }
#endif
    Fail("no such pipe: " + name);
}

}  // namespace lumora_bench
