#include "bench/journey.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "bench/process_cost.h"

namespace lumora_bench {

void Steps::Reach(const char* step) {
    char text[64];
    const double milliseconds = static_cast<double>(Nanoseconds() - mBegin) / 1e6;
    std::snprintf(text, sizeof(text), "\"%s_ms\":%.3f,", step, milliseconds);
    mLine += text;
}

void Steps::Print(unsigned int found) const { std::printf("{%s\"found\":%u}\n", mLine.c_str(), found); }

}  // namespace lumora_bench

int main(int count, char** arguments) {
    const std::string role = count == 5 ? arguments[1] : "";
    const std::string type = count == 5 ? arguments[2] : "";
    const auto devices = static_cast<unsigned int>(count == 5 ? std::atol(arguments[3]) : 0);
    if (role == "client") {
        lumora_bench::Steps steps(std::atoll(arguments[4]));
        steps.Reach("main");
        const unsigned int found = lumora_bench::Travel(type, devices, steps);
        steps.Print(found);
        std::fflush(stdout);
        _exit(0);  // how the process ends is measured elsewhere
    }
    if (role == "device") {
        lumora_bench::Offer(type, devices);
        return 0;
    }
    std::fputs("usage: lumora_bench_journey... device|client TYPE COUNT BEGIN\n", stderr);
    return 2;
}
