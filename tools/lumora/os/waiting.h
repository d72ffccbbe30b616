// Waiting that ends when it should: in time, by a signal, or when nobody reads our output any more.
#pragma once

#include <chrono>

namespace lumora_cli {

using Clock = std::chrono::steady_clock;
using Deadline = Clock::time_point;

// Far enough away to mean never, and near enough to calculate with.
inline Deadline Never() { return Clock::now() + std::chrono::hours(24 * 365); }
inline Deadline In(std::chrono::milliseconds time) { return Clock::now() + time; }

enum class Woken { READY, LATE, STOPPED };

// Waits for fd to become readable. Throws a QuietEnd when the reader of standard output has left.
Woken Wait(int fd, Deadline deadline);

}  // namespace lumora_cli
