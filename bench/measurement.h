// What one side of a measurement is to do, and who does it.
#pragma once

#include <cstddef>
#include <string>

#include "bench/pipe.h"

namespace lumora_bench {

struct Measurement {
    Role role = Role::DEVICE;
    std::string pipe;
    std::string mode;
    std::size_t size = 64;
    double seconds = 1;
    double number =
        1000;  // messages per second of paced streams; messages in all when memory growth is measured
};

// The last byte of a message says whether it is the last one.
constexpr char MORE = 0;
constexpr char LAST = 1;

// Each opens the pipe, prints a line of JSON when this side has seen something, and closes the pipe when the
// input ends, which is when the other side is done.
void RunStream(Pipe& pipe, const Measurement& what);
void RunPingPong(Pipe& pipe, const Measurement& what);
void RunPaced(Pipe& pipe, const Measurement& what);
void RunGrowth(Pipe& pipe, const Measurement& what);

void WaitForEndOfInput();

}  // namespace lumora_bench
