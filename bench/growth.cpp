// Measures whether memory grows with traffic: messages of many lengths go up and come back. Both sides read
// the size of their heap after some messages and after all.
#include <cstdio>
#include <vector>

#include "bench/measurement.h"
#include "bench/process_cost.h"

namespace lumora_bench {

namespace {

constexpr int UNDER_WAY = 32;
constexpr std::size_t LONGEST = 300000;

// Blocks before the first reading of the memory: until reads of every length have touched the buffers that
// they go to.
long Before(long messages) { return messages / 10 + 1000; }

// Mostly short lengths, and some that do not fit into a read.
std::size_t LengthOf(long number) {
    return number % 1000 == 999 ? LONGEST : 16 + static_cast<std::size_t>(number * 37 % 4096);
}

class Heap {
public:
    void Before() {
        mHeap = HeapBytes();
        mResident = ResidentKilobytes();
    }
    void PrintGrowth(long messages) const {
        std::printf("{\"messages\":%ld,\"heap_b\":%zu,\"heap_growth_b\":%ld,\"resident_growth_kb\":%ld}\n",
                    messages, mHeap, static_cast<long>(HeapBytes()) - static_cast<long>(mHeap),
                    ResidentKilobytes() - mResident);
        std::fflush(stdout);
    }

private:
    std::size_t mHeap = 0;
    long mResident = 0;
};

class Window {
public:
    void Give() { mFree.Raise(); }
    void Take() { mFree.Wait(); }
    void Fill() { ForAll(&Window::Give); }
    void Drain() { ForAll(&Window::Take); }

private:
    void ForAll(void (Window::*act)()) {
        for (int i = 0; i < UNDER_WAY; ++i) {
            (this->*act)();
        }
    }

    Signal mFree;
};

void SendAll(Pipe& pipe, long messages) {
    Window window;
    Heap heap;
    const std::vector<char> message(LONGEST, 'x');
    pipe.Open(Role::CLIENT, Flow::BOTH, [&](const char*, std::size_t) { window.Give(); });
    window.Fill();
    for (long i = 0; i < Before(messages) + messages; ++i) {
        if (i == Before(messages)) {
            window.Drain();
            heap.Before();
            window.Fill();
        }
        window.Take();
        pipe.Send(message.data(), LengthOf(i));
    }
    window.Drain();
    heap.PrintGrowth(messages);
    WaitForEndOfInput();
    pipe.Close();
}

void ReturnAll(Pipe& pipe, long messages) {
    Heap heap;
    Signal ended;
    long count = 0;
    pipe.Open(Role::DEVICE, Flow::BOTH, [&](const char* data, std::size_t length) {
        pipe.Send(data, length);
        ++count;
        if (count == Before(messages)) {
            heap.Before();
        } else if (count == Before(messages) + messages) {
            heap.PrintGrowth(messages);
            ended.Raise();
        }
    });
    ended.Wait();
    WaitForEndOfInput();
    pipe.Close();
}

}  // namespace

void RunGrowth(Pipe& pipe, const Measurement& what) {
    const long messages = static_cast<long>(what.number);
    if (what.role == Role::DEVICE) {
        ReturnAll(pipe, messages);
    } else {
        SendAll(pipe, messages);
    }
}

}  // namespace lumora_bench
