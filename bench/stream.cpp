// Sends messages in one direction, as fast as the pipe takes them.
#include <cinttypes>
#include <cstdio>
#include <thread>
#include <vector>

#include "bench/measurement.h"
#include "bench/process_cost.h"

namespace lumora_bench {

namespace {

// Returns the number of messages.
std::uint64_t SendFor(Pipe& pipe, const Measurement& what) {
    std::vector<char> message(what.size, 'x');
    message[what.size - 1] = MORE;
    const Clock::time_point begin = Clock::now();
    std::uint64_t messages = 0;
    // Reading the clock costs as much as a small message, so it is not read for each.
    const std::uint64_t stride = what.size < 16384 ? 64 : 1;
    while (messages % stride != 0 || Seconds(Clock::now() - begin) < what.seconds) {
        pipe.Send(message.data(), message.size());
        ++messages;
    }
    message[what.size - 1] = LAST;
    pipe.Send(message.data(), message.size());
    return messages + 1;
}

void PrintCost(std::uint64_t messages, double cpuBefore) {
    std::printf("{\"messages\":%" PRIu64 ",\"cpu_s\":%.4f,\"peak_kb\":%ld}\n", messages,
                CpuSeconds() - cpuBefore, PeakKilobytes());
}

void SendStream(Pipe& pipe, const Measurement& what) {
    const double cpuBefore = CpuSeconds();
    const std::uint64_t messages = SendFor(pipe, what);
    // Threads of the pipe may still send; that time counts.
    WaitForEndOfInput();
    PrintCost(messages, cpuBefore);
    pipe.Close();
}

class StreamReceiver {
public:
    void Take(const char* data, std::size_t length) {
        if (mMessages++ == 0) {
            mFirst = Clock::now();
            mCpuAtFirst = CpuSeconds();
        }
        mBytes += length;
        if (data[length - 1] == LAST) {
            mLast = Clock::now();
            mEnded.Raise();
        }
    }

    void Print() {
        mEnded.Wait();
        std::printf("{\"messages\":%" PRIu64 ",\"bytes\":%" PRIu64
                    ",\"seconds\":%.6f,\"cpu_s\":%.4f,\"peak_kb\":%ld}\n",
                    mMessages, mBytes, Seconds(mLast - mFirst), CpuSeconds() - mCpuAtFirst, PeakKilobytes());
        std::fflush(stdout);
        WaitForEndOfInput();
    }

private:
    Clock::time_point mFirst;
    Clock::time_point mLast;
    double mCpuAtFirst = 0;
    std::uint64_t mBytes = 0;
    std::uint64_t mMessages = 0;
    Signal mEnded;
};

}  // namespace

// Each side sends and receives, so each prints both: first what it received, then what all of it has cost.
void RunBoth(Pipe& pipe, const Measurement& what) {
    StreamReceiver receiver;
    pipe.Open(what.role, Flow::BOTH,
              [&](const char* data, std::size_t length) { receiver.Take(data, length); });
    std::thread sender([&] { SendFor(pipe, what); });
    receiver.Print();
    sender.join();
    PrintCost(0, 0);
    pipe.Close();
}

void RunStream(Pipe& pipe, const Measurement& what) {
    const Flow flow = what.mode == "up" ? Flow::UP : Flow::DOWN;
    if ((flow == Flow::UP) == (what.role == Role::CLIENT)) {
        pipe.Open(what.role, flow, nullptr);
        SendStream(pipe, what);
        return;
    }
    StreamReceiver receiver;
    pipe.Open(what.role, flow, [&](const char* data, std::size_t length) { receiver.Take(data, length); });
    receiver.Print();
    pipe.Close();
}

}  // namespace lumora_bench
