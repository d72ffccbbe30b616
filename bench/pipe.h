// A pipe for messages between two processes, over one of the libraries that are compared.
#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <string>

#include "bench/signal.h"

namespace lumora_bench {

enum class Role { DEVICE, CLIENT };
enum class Flow { UP, DOWN, BOTH };  // UP: client to device

// Called for every message, on a thread that the library chooses.
using Handler = std::function<void(const char* data, std::size_t length)>;

enum class TcpKind {
    FRAMED,         // the framing of Lumora's client frames; a thread receives, as with Lumora
    FRAMED_DIRECT,  // the same, but who exchanges a message receives the answer without a thread in between
    FRAMED_TLS,     // as FRAMED_PAIR, by TLS 1.3
    FRAMED_PAIR,    // as FRAMED, with a connection for each direction, which is how Lumora does it
    UNFRAMED        // bytes without boundaries: what the machine can do at all
};

// A failure ends the process with a message, so that no wrong figure is printed.
class Pipe {
public:
    virtual ~Pipe() = default;
    // Returns when messages can flow. The device is started first; handler may be empty.
    virtual void Open(Role role, Flow flow, Handler handler) = 0;
    virtual void Send(const char* data, std::size_t length) = 0;
    // Sends, and returns when one message has come back. Waits as a program of this library would.
    virtual void Exchange(const char* data, std::size_t length) = 0;
    virtual void Close() = 0;
};

// Private: a pipe that fails if its channel is not.
std::unique_ptr<Pipe> MakeLumoraPipe(bool isPrivate);
// Whether the platform library can make private channels.
bool CanBePrivate();
std::unique_ptr<Pipe> MakeTcpPipe(TcpKind kind);
#ifdef LUMORA_BENCH_ZMQ
enum class ZmqKind { PUSH_PULL, PAIR, CURVE };  // CURVE: PAIR, encrypted
std::unique_ptr<Pipe> MakeZmqPipe(ZmqKind kind);
#endif
#ifdef LUMORA_BENCH_NNG
std::unique_ptr<Pipe> MakeNngPipe(bool pair);
#endif
#ifdef LUMORA_BENCH_DDS
std::unique_ptr<Pipe> MakeDdsPipe();
#endif
#ifdef LUMORA_BENCH_MQTT
std::unique_ptr<Pipe> MakeMqttPipe(bool tls);
#endif

// The names of the pipes that this program has, separated by spaces.
std::string Pipes();
// `name` is one of these.
std::unique_ptr<Pipe> MakePipe(const std::string& name);

}  // namespace lumora_bench
