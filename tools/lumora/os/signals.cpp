#include "tools/lumora/os/signals.h"

#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdint>

#include "tools/lumora/terminal/failure.h"

namespace lumora_cli {

namespace {

std::atomic<int> g_signal{0};
std::atomic<int> g_eventFd{-1};

// Wakes the thread that waits for signals at the end. This program sends it to itself only.
constexpr int END_OF_WORK = SIGUSR1;

// nohup, and shells that start a program in the background, set signals to be ignored. They stay ignored.
bool IsIgnored(int number) {
    struct sigaction action = {};
    return sigaction(number, nullptr, &action) == 0 && action.sa_handler == SIG_IGN;
}

sigset_t Watched() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, END_OF_WORK);
    for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
        if (!IsIgnored(number)) {
            sigaddset(&set, number);
        }
    }
    return set;
}

}  // namespace

StopSignals::StopSignals() {
    // A write to a pipe without a reader then fails with EPIPE instead of ending the process.
    std::signal(SIGPIPE, SIG_IGN);
    const sigset_t watched = Watched();
    // Blocked in all threads, so that only sigwait in our thread takes them.
    pthread_sigmask(SIG_BLOCK, &watched, nullptr);
    // Never closed: other threads may poll it until the process ends.
    g_eventFd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    mThread = std::thread([this] { Run(); });
}

StopSignals::~StopSignals() {
    // sigwait cannot be woken by anything but a signal.
    pthread_kill(mThread.native_handle(), END_OF_WORK);
    mThread.join();
}

void StopSignals::Run() {
    const sigset_t watched = Watched();
    while (true) {
        int number = 0;
        if (sigwait(&watched, &number) != 0 || number == END_OF_WORK) {
            return;
        }
        // The second signal. Destructors would wait for the network, so the process ends without them.
        if (g_signal.exchange(number) != 0) {
            _exit(EXIT_BY_SIGNAL + number);
        }
        // The event stays readable for good: each wait that begins later ends at once.
        const std::uint64_t one = 1;
        if (write(g_eventFd, &one, sizeof(one)) < 0) {
            _exit(EXIT_BY_SIGNAL + number);  // without the event no thread would notice the signal
        }
    }
}

int StopSignal() { return g_signal; }

int StopFd() { return g_eventFd; }

void ThrowWhenStopped() {
    if (StopSignal() != 0) {
        throw QuietEnd(EXIT_BY_SIGNAL + StopSignal());
    }
}

bool PauseUnlessStopped(int milliseconds) {
    pollfd stop = {StopFd(), POLLIN, 0};
    return poll(&stop, 1, milliseconds) == 0;
}

}  // namespace lumora_cli
