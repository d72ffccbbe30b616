// A slow link: joins this network namespace with a new one by two TUN devices, and hands every packet on
// after a delay, in order.
//
// usage: lumora_bench_relay DEVICE MICROSECONDS
// Prints "ready" when both devices exist. The new namespace is that of this process, /proc/PID/ns/net.
// Everything ends with the standard input. The caller gives the devices their addresses.
#include <fcntl.h>
#include <linux/if.h>
#include <linux/if_tun.h>
#include <poll.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::size_t LONGEST_PACKET = 65536;

[[noreturn]] void Fail(const char* what) {
    std::fprintf(stderr, "relay: %s: %s\n", what, std::strerror(errno));
    std::_Exit(2);
}

int OpenTun(const char* name) {
    const int tun = open("/dev/net/tun", O_RDWR | O_CLOEXEC | O_NONBLOCK);
    if (tun < 0) {
        Fail("/dev/net/tun");
    }
    ifreq request = {};
    request.ifr_flags = IFF_TUN | IFF_NO_PI;
    std::strncpy(request.ifr_name, name, sizeof(request.ifr_name) - 1);
    if (ioctl(tun, TUNSETIFF, &request) != 0) {
        Fail("TUNSETIFF");
    }
    return tun;
}

// One direction, on a thread of its own.
class Delay {
public:
    Delay(int from, int to, Clock::duration delay) : mFrom(from), mTo(to), mDelay(delay) {}

    void Run() {
        prctl(PR_SET_TIMERSLACK, 1);  // or a wait may end 50 us late
        while (true) {
            WaitForSomethingToDo();
            TakeIn();
            HandOn();
        }
    }

private:
    struct Packet {
        Clock::time_point due;
        std::vector<char> bytes;
    };

    void WaitForSomethingToDo() const {
        pollfd readable = {mFrom, POLLIN, 0};
        timespec left = {};
        if (!mWaiting.empty()) {
            const auto ns = std::chrono::nanoseconds(mWaiting.front().due - Clock::now()).count();
            left = {static_cast<time_t>(ns > 0 ? ns / 1000000000 : 0),
                    static_cast<long>(ns > 0 ? ns % 1000000000 : 0)};
        }
        ppoll(&readable, 1, mWaiting.empty() ? nullptr : &left, nullptr);
    }

    void TakeIn() {
        ssize_t count = 0;
        while ((count = read(mFrom, mBuffer.data(), mBuffer.size())) > 0) {
            mWaiting.push_back({Clock::now() + mDelay, {mBuffer.begin(), mBuffer.begin() + count}});
        }
    }

    void HandOn() {
        while (!mWaiting.empty() && mWaiting.front().due <= Clock::now()) {
            const std::vector<char>& bytes = mWaiting.front().bytes;
            if (write(mTo, bytes.data(), bytes.size()) < 0 && errno != EIO) {  // EIO: the device is down
                Fail("write");
            }
            mWaiting.pop_front();
        }
    }

    const int mFrom;
    const int mTo;
    const Clock::duration mDelay;
    std::deque<Packet> mWaiting;
    std::vector<char> mBuffer = std::vector<char>(LONGEST_PACKET);
};

}  // namespace

int main(int count, char** arguments) {
    if (count != 3) {
        std::fputs("usage: lumora_bench_relay DEVICE MICROSECONDS\n", stderr);
        return 2;
    }
    const std::chrono::microseconds delay(std::atol(arguments[2]));
    const int here = OpenTun(arguments[1]);
    if (unshare(CLONE_NEWNET) != 0) {
        Fail("unshare");
    }
    const int there = OpenTun(arguments[1]);
    std::thread([=] { Delay(here, there, delay).Run(); }).detach();
    std::thread([=] { Delay(there, here, delay).Run(); }).detach();
    std::puts("ready");
    std::fflush(stdout);
    char ignored[64];
    while (read(STDIN_FILENO, ignored, sizeof(ignored)) > 0) {
    }
    std::_Exit(0);
}
