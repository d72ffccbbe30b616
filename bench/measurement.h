// The parameters of one side of a measurement, and the functions that run it.
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

// Each function opens the pipe, prints a line of JSON if this side has a result, and closes the pipe when the
// standard input ends: the other side is done then.
void RunStream(Pipe& pipe, const Measurement& what);
void RunPingPong(Pipe& pipe, const Measurement& what);
void RunPaced(Pipe& pipe, const Measurement& what);
void RunBoth(Pipe& pipe, const Measurement& what);
void RunGrowth(Pipe& pipe, const Measurement& what);

void WaitForEndOfInput();

}  // namespace lumora_bench
