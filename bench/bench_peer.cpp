// One side of one measurement over one pipe. Prints a line of JSON with what this side saw; bench/compare
// starts both sides and puts the lines together.
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "bench/pipe.h"

namespace lumora_bench {

namespace {

using Clock = std::chrono::steady_clock;

constexpr const char* USAGE =
    "usage: lumora_bench_peer ROLE PIPE MODE SIZE SECONDS [RATE]\n"
    "  ROLE  device | client (start the device first)\n"
    "  MODE  up | down       a stream of messages of SIZE bytes, client to device or back\n"
    "        pingpong        the client sends, the device answers with the same bytes\n"
    "        paced-up        RATE messages a second, client to device, one-way times\n"
    "Prints one line of JSON, then waits for the end of standard input.\n";

// The last byte of a message says whether it is the last one.
constexpr char MORE = 0;
constexpr char LAST = 1;

double Seconds(Clock::duration duration) { return std::chrono::duration<double>(duration).count(); }

double CpuSeconds() {
    rusage usage = {};
    getrusage(RUSAGE_SELF, &usage);
    const auto seconds = [](const timeval& t) {
        return static_cast<double>(t.tv_sec) + 1e-6 * static_cast<double>(t.tv_usec);
    };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

long PeakKilobytes() {
    rusage usage = {};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_maxrss;
}

std::int64_t Nanoseconds() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now().time_since_epoch()).count();
}

double Percentile(const std::vector<std::int64_t>& sorted, double share) {
    if (sorted.empty()) {
        return 0;
    }
    const auto index = static_cast<std::size_t>(share * static_cast<double>(sorted.size() - 1));
    return static_cast<double>(sorted[index]) / 1000.0;
}

void PrintLatencies(std::vector<std::int64_t> nanoseconds) {
    std::sort(nanoseconds.begin(), nanoseconds.end());
    std::printf(
        "{\"samples\":%zu,\"p50_us\":%.2f,\"p99_us\":%.2f,\"p999_us\":%.2f,\"cpu_s\":%.4f,\"peak_kb\":%ld}\n",
        nanoseconds.size(), Percentile(nanoseconds, 0.5), Percentile(nanoseconds, 0.99),
        Percentile(nanoseconds, 0.999), CpuSeconds(), PeakKilobytes());
    std::fflush(stdout);
}

struct Measurement {
    Role role = Role::DEVICE;
    std::string pipe;
    std::string mode;
    std::size_t size = 64;
    double seconds = 1;
    double rate = 1000;
};

// ---- Streams ----

void StreamSender(Pipe& pipe, const Measurement& what) {
    std::vector<char> message(what.size, 'x');
    message.back() = MORE;
    const double cpuBefore = CpuSeconds();
    const Clock::time_point begin = Clock::now();
    std::uint64_t messages = 0;
    // Reading the clock costs as much as a small message: not at each of them.
    const std::uint64_t stride = what.size < 16384 ? 64 : 1;
    while (messages % stride != 0 || Seconds(Clock::now() - begin) < what.seconds) {
        pipe.Send(message.data(), message.size());
        ++messages;
    }
    message.back() = LAST;
    pipe.Send(message.data(), message.size());
    std::printf("{\"messages\":%llu,\"seconds\":%.6f,\"cpu_s\":%.4f,\"peak_kb\":%ld}\n",
                static_cast<unsigned long long>(messages + 1), Seconds(Clock::now() - begin),
                CpuSeconds() - cpuBefore, PeakKilobytes());
    std::fflush(stdout);
}

struct StreamReceiver {
    Clock::time_point first;
    Clock::time_point last;
    double cpuAtFirst = 0;
    std::uint64_t bytes = 0;
    std::uint64_t messages = 0;
    Signal ended;

    bool Take(const char* data, std::size_t length) {
        if (messages++ == 0) {
            first = Clock::now();
            cpuAtFirst = CpuSeconds();
        }
        bytes += length;
        if (data[length - 1] != LAST) {
            return true;
        }
        last = Clock::now();
        ended.Raise();
        return false;
    }

    void Print() {
        ended.Wait();
        const double seconds = Seconds(last - first);
        std::printf(
            "{\"messages\":%llu,\"bytes\":%llu,\"seconds\":%.6f,\"mb_per_s\":%.2f,\"cpu_s\":%.4f,\"peak_kb\":"
            "%ld}\n",
            static_cast<unsigned long long>(messages), static_cast<unsigned long long>(bytes), seconds,
            static_cast<double>(bytes) / 1e6 / seconds, CpuSeconds() - cpuAtFirst, PeakKilobytes());
        std::fflush(stdout);
    }
};

void RunStream(Pipe& pipe, const Measurement& what) {
    const Flow flow = what.mode == "up" ? Flow::UP : Flow::DOWN;
    if ((flow == Flow::UP) == (what.role == Role::CLIENT)) {
        pipe.Open(what.role, flow, nullptr);
        StreamSender(pipe, what);
        return;
    }
    StreamReceiver receiver;
    pipe.Open(what.role, flow,
              [&](const char* data, std::size_t length) { return receiver.Take(data, length); });
    receiver.Print();
}

// ---- Ping-pong ----

void RunPingPong(Pipe& pipe, const Measurement& what) {
    if (what.role == Role::DEVICE) {
        Signal ended;
        pipe.Open(what.role, Flow::BOTH, [&](const char* data, std::size_t length) {
            const bool last = data[length - 1] == LAST;
            pipe.Send(data, length);
            if (last) {
                ended.Raise();
            }
            return !last;
        });
        ended.Wait();
        PrintLatencies({});
        return;
    }
    pipe.Open(what.role, Flow::BOTH, nullptr);
    std::vector<char> message(what.size, 'x');
    message.back() = MORE;
    for (int i = 0; i < 200; ++i) {  // caches and windows
        pipe.Exchange(message.data(), message.size());
    }
    std::vector<std::int64_t> times;
    times.reserve(1000000);
    const Clock::time_point begin = Clock::now();
    while (Seconds(Clock::now() - begin) < what.seconds) {
        const std::int64_t sent = Nanoseconds();
        pipe.Exchange(message.data(), message.size());
        times.push_back(Nanoseconds() - sent);
    }
    message.back() = LAST;
    pipe.Exchange(message.data(), message.size());
    PrintLatencies(std::move(times));
}

// ---- Paced streams ----

void PacedSender(Pipe& pipe, const Measurement& what) {
    std::vector<char> message(what.size, 'x');
    const auto interval = std::chrono::nanoseconds(static_cast<std::int64_t>(1e9 / what.rate));
    const auto count = static_cast<std::uint64_t>(what.seconds * what.rate);
    Clock::time_point next = Clock::now();
    for (std::uint64_t i = 0; i < count; ++i) {
        const auto left = next - Clock::now();
        if (left > Clock::duration::zero()) {
            const auto ns = std::chrono::duration_cast<std::chrono::nanoseconds>(left).count();
            const timespec pause = {static_cast<time_t>(ns / 1000000000), static_cast<long>(ns % 1000000000)};
            nanosleep(&pause, nullptr);
        }
        next += interval;
        const std::int64_t now = Nanoseconds();
        std::memcpy(message.data(), &now, sizeof(now));
        message.back() = i + 1 == count ? LAST : MORE;
        pipe.Send(message.data(), message.size());
    }
    PrintLatencies({});
}

void RunPaced(Pipe& pipe, const Measurement& what) {
    if (what.role == Role::CLIENT) {
        pipe.Open(what.role, Flow::UP, nullptr);
        PacedSender(pipe, what);
        return;
    }
    Signal ended;
    std::vector<std::int64_t> times;
    times.reserve(1000000);
    pipe.Open(what.role, Flow::UP, [&](const char* data, std::size_t length) {
        std::int64_t sent = 0;
        std::memcpy(&sent, data, sizeof(sent));
        times.push_back(Nanoseconds() - sent);
        if (data[length - 1] != LAST) {
            return true;
        }
        ended.Raise();
        return false;
    });
    ended.Wait();
    PrintLatencies(std::move(times));
}

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
    what.rate = count > 6 ? std::atof(arguments[6]) : 1000;
    return (role == "device" || role == "client") && what.size >= 16 && what.seconds > 0 && what.rate > 0;
}

void WaitForEndOfInput() {
    char ignored[64];
    while (read(STDIN_FILENO, ignored, sizeof(ignored)) > 0) {
    }
}

int Run(int count, char** arguments) {
    Measurement what;
    if (!Parse(count, arguments, what)) {
        std::fputs(USAGE, stderr);
        return 2;
    }
    const std::unique_ptr<Pipe> pipe = MakePipe(what.pipe);
    if (what.mode == "up" || what.mode == "down") {
        RunStream(*pipe, what);
    } else if (what.mode == "pingpong") {
        RunPingPong(*pipe, what);
    } else if (what.mode == "paced-up") {
        RunPaced(*pipe, what);
    } else {
        std::fputs(USAGE, stderr);
        return 2;
    }
    WaitForEndOfInput();
    pipe->Close();
    return 0;
}

}  // namespace

}  // namespace lumora_bench

int main(int count, char** arguments) { return lumora_bench::Run(count, arguments); }
