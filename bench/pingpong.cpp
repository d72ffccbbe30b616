// Ping-pong: the client sends, the device answers with the same bytes from the buffer that it received them
// in.
#include <vector>

#include "bench/latencies.h"
#include "bench/measurement.h"
#include "bench/process_cost.h"

namespace lumora_bench {

namespace {

constexpr int EXCHANGES_BEFORE = 200;  // caches and windows

void Answer(Pipe& pipe) {
    pipe.Open(Role::DEVICE, Flow::BOTH,
              [&](const char* data, std::size_t length) { pipe.Send(data, length); });
    WaitForEndOfInput();
    pipe.Close();
}

void Ask(Pipe& pipe, const Measurement& what) {
    pipe.Open(Role::CLIENT, Flow::BOTH, nullptr);
    const std::vector<char> message(what.size, 'x');
    for (int i = 0; i < EXCHANGES_BEFORE; ++i) {
        pipe.Exchange(message.data(), message.size());
    }
    Latencies latencies;
    const Clock::time_point begin = Clock::now();
    while (Seconds(Clock::now() - begin) < what.seconds) {
        const std::int64_t sent = Nanoseconds();
        pipe.Exchange(message.data(), message.size());
        latencies.Add(Nanoseconds() - sent);
    }
    latencies.Print();
    WaitForEndOfInput();
    pipe.Close();
}

}  // namespace

void RunPingPong(Pipe& pipe, const Measurement& what) {
    if (what.role == Role::DEVICE) {
        Answer(pipe);
    } else {
        Ask(pipe, what);
    }
}

}  // namespace lumora_bench
