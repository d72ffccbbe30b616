// Processor time and memory of this process so far.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>

namespace lumora_bench {

using Clock = std::chrono::steady_clock;

double Seconds(Clock::duration duration);
double MillisecondsSince(Clock::time_point begin);
std::int64_t Nanoseconds();  // of a clock that all processes of a machine share

double CpuSeconds();
long PeakKilobytes();
long ResidentKilobytes();
std::size_t HeapBytes();  // in use, in all arenas and in blocks of their own

}  // namespace lumora_bench
