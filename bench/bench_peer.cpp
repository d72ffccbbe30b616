// One side of one measurement over one pipe. Prints a line of JSON with what this side saw; bench/compare and
// bench/waits start both sides and put the lines together.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "bench/measurement.h"

namespace lumora_bench {

namespace {

constexpr const char* USAGE =
    "usage: lumora_bench_peer ROLE PIPE MODE SIZE SECONDS [NUMBER]\n"
    "  ROLE  device | client (start the device first)\n"
    "  MODE  up | down       a stream of messages of SIZE bytes, client to device or back\n"
    "        both            a stream in each direction at once\n"
    "        pingpong        the client sends, the device answers with the same bytes\n"
    "        paced-up        NUMBER messages a second, client to device, one-way times\n"
    "        growth          NUMBER messages of many sizes up and back; how the heap grows\n"
    "Ends when standard input does.\n";

bool Parse(int count, char** arguments, Measurement& what) {
    if (count < 6) {
        return false;
    }
    const std::string role = arguments[1];
    what.role = role == "device" ? Role::DEVICE : Role::CLIENT;
    what.pipe = arguments[2];
    what.mode = arguments[3];
    what.size = static_cast<std::size_t>(std::atol(arguments[4]));
    what.seconds = std::atof(arguments[5]);
    what.number = count > 6 ? std::atof(arguments[6]) : 1000;
    return (role == "device" || role == "client") && what.size >= 16 && what.seconds > 0 && what.number > 0;
}

bool RunMode(Pipe& pipe, const Measurement& what) {
    if (what.mode == "up" || what.mode == "down") {
        RunStream(pipe, what);
    } else if (what.mode == "both") {
        RunBoth(pipe, what);
    } else if (what.mode == "pingpong") {
        RunPingPong(pipe, what);
    } else if (what.mode == "paced-up") {
        RunPaced(pipe, what);
    } else if (what.mode == "growth") {
        RunGrowth(pipe, what);
    } else {
        return false;
    }
    return true;
}

int Run(int count, char** arguments) {
    if (count == 2 && std::string(arguments[1]) == "pipes") {
        std::puts(Pipes().c_str());
        return 0;
    }
    Measurement what;
    if (!Parse(count, arguments, what)) {
        std::fputs(USAGE, stderr);
        return 2;
    }
    const std::unique_ptr<Pipe> pipe = MakePipe(what.pipe);
    if (!RunMode(*pipe, what)) {
        std::fputs(USAGE, stderr);
        return 2;
    }
    return 0;
}

}  // namespace

void WaitForEndOfInput() {
    char ignored[64];
    while (read(STDIN_FILENO, ignored, sizeof(ignored)) > 0) {
    }
}

}  // namespace lumora_bench

int main(int count, char** arguments) { return lumora_bench::Run(count, arguments); }
