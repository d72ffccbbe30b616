#include "bench/process_cost.h"

#include <malloc.h>
#include <sys/resource.h>

#include <fstream>
#include <string>

namespace lumora_bench {

namespace {

long StatusKilobytes(const std::string& name) {
    std::ifstream status("/proc/self/status");
    std::string word;
    long kilobytes = 0;
    while (status >> word && word != name) {
    }
    status >> kilobytes;
    return kilobytes;
}

double InSeconds(const timeval& time) {
    return static_cast<double>(time.tv_sec) + 1e-6 * static_cast<double>(time.tv_usec);
}

}  // namespace

double Seconds(Clock::duration duration) { return std::chrono::duration<double>(duration).count(); }

double MillisecondsSince(Clock::time_point begin) { return 1e3 * Seconds(Clock::now() - begin); }

std::int64_t Nanoseconds() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now().time_since_epoch()).count();
}

double CpuSeconds() {
    rusage usage = {};
    getrusage(RUSAGE_SELF, &usage);
    return InSeconds(usage.ru_utime) + InSeconds(usage.ru_stime);
}

// Not from rusage: its peak includes the program that called exec.
long PeakKilobytes() { return StatusKilobytes("VmHWM:"); }

long ResidentKilobytes() { return StatusKilobytes("VmRSS:"); }

std::size_t HeapBytes() {
    const struct mallinfo2 info = mallinfo2();
    return info.uordblks + info.hblkhd;
}

}  // namespace lumora_bench
