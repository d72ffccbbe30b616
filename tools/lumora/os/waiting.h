// Waits that also end by a deadline, by a signal, and when the reader of our output has left.
#pragma once

#include <chrono>

namespace lumora_cli {

using Clock = std::chrono::steady_clock;
using Deadline = Clock::time_point;

// A year: no command runs that long, and adding to it does not overflow as time_point::max() would.
inline Deadline Never() { return Clock::now() + std::chrono::hours(24 * 365); }
inline Deadline In(std::chrono::milliseconds time) { return Clock::now() + time; }

// The time for poll(): milliseconds until the deadline, rounded up, from 0 to most. Callers poll again after
// most.
int PollTime(Deadline deadline, std::chrono::milliseconds most = std::chrono::minutes(1));

enum class Woken { READY, LATE, STOPPED };

// Waits for fd to become readable. Throws a QuietEnd when the reader of standard output has left.
Woken Wait(int fd, Deadline deadline);

}  // namespace lumora_cli
