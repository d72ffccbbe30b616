// Waits that signals of the application interrupt.
#include "transport/socket.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <chrono>
#include <csignal>

namespace lumoraAiModule {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

int g_signals = 0;
void CountSignal(int) { ++g_signals; }

// A timer signal of the application, every millisecond.
class SocketTest : public testing::Test {
protected:
    SocketTest() {
        g_signals = 0;
        struct sigaction action = {};
        action.sa_handler = CountSignal;
        action.sa_flags = SA_RESTART;
        sigaction(SIGALRM, &action, nullptr);
        SetTimer(1000);
    }
    // The handler stays: a signal may still be on its way, and its default action ends the process.
    ~SocketTest() override { SetTimer(0); }

private:
    static void SetTimer(suseconds_t period) {
        const itimerval timer = {{0, period}, {0, period}};
        setitimer(ITIMER_REAL, &timer, nullptr);
    }
};

TEST_F(SocketTest, PauseLastsItsTimeWhateverSignalsArrive) {
    int ends[2] = {};
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, ends));
    const Descriptor ours = Descriptor::Adopt(ends[0]);
    const Descriptor theirs = Descriptor::Adopt(ends[1]);
    const Clock::time_point begin = Clock::now();
    EXPECT_FALSE(PauseUntilReady(ours.Number(), POLLIN, 60));
    EXPECT_LE(milliseconds(60), Clock::now() - begin);
    EXPECT_LT(0, g_signals);
}

}  // namespace
}  // namespace lumoraAiModule
