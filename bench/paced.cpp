// The client sends a number of messages per second to the device, each with its time of sending.
#include <ctime>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <vector>

#include "bench/latencies.h"
#include "bench/measurement.h"
#include "bench/process_cost.h"

namespace lumora_bench {

namespace {

std::uint64_t Counted(const Measurement& what) {
    return static_cast<std::uint64_t>(what.seconds * what.number) + 1;
}

// The first messages are not counted: some pipes take them before they are connected.
std::uint64_t LeftOut(const Measurement& what) { return Counted(what) / 4; }

void SleepUntil(Clock::time_point when) {
    const auto left = std::chrono::duration_cast<std::chrono::nanoseconds>(when - Clock::now()).count();
    if (left > 0) {
        const timespec pause = {static_cast<time_t>(left / 1000000000), static_cast<long>(left % 1000000000)};
        nanosleep(&pause, nullptr);
    }
}

// What a block costs while the process waits most of the time.
void PrintCpu(std::uint64_t count, double before) {
    std::printf("{\"cpu_us_per_block\":%.3f}\n", (CpuSeconds() - before) * 1e6 / static_cast<double>(count));
}

void SendPaced(Pipe& pipe, const Measurement& what) {
    std::vector<char> message(what.size, 'x');
    const auto interval = std::chrono::nanoseconds(static_cast<std::int64_t>(1e9 / what.number));
    const std::uint64_t count = LeftOut(what) + Counted(what);
    const double cpuBefore = CpuSeconds();
    Clock::time_point next = Clock::now();
    for (std::uint64_t i = 0; i < count; ++i, next += interval) {
        SleepUntil(next);
        const std::int64_t now = Nanoseconds();
        std::memcpy(message.data(), &now, sizeof(now));
        message[what.size - 1] = i + 1 == count ? LAST : MORE;
        pipe.Send(message.data(), message.size());
    }
    WaitForEndOfInput();
    PrintCpu(count, cpuBefore);
    pipe.Close();
}

void ReceivePaced(Pipe& pipe, const Measurement& what) {
    Signal ended;
    Latencies latencies;
    std::uint64_t received = 0;
    double cpuAtFirst = 0;
    pipe.Open(Role::DEVICE, Flow::UP, [&](const char* data, std::size_t length) {
        std::int64_t sent = 0;
        std::memcpy(&sent, data, sizeof(sent));
        if (received == 0) {
            cpuAtFirst = CpuSeconds();
        }
        if (received++ >= LeftOut(what)) {
            latencies.Add(Nanoseconds() - sent);
        }
        if (data[length - 1] == LAST) {
            ended.Raise();
        }
    });
    ended.Wait();
    latencies.Print();
    WaitForEndOfInput();
    PrintCpu(received, cpuAtFirst);
    pipe.Close();
}

}  // namespace

void RunPaced(Pipe& pipe, const Measurement& what) {
    if (what.role == Role::DEVICE) {
        ReceivePaced(pipe, what);
        return;
    }
    pipe.Open(Role::CLIENT, Flow::UP, nullptr);
    SendPaced(pipe, what);
}

}  // namespace lumora_bench
