// The hub's thread: timers, posted work and the gate of callbacks.
#include "hub/core/event_loop.h"

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <thread>
#include <vector>

#include "hub/core/call_gate.h"

namespace {

using lumora_hub::CallGate;
using lumora_hub::EventLoop;
using std::chrono::milliseconds;

TEST(EventLoopTest, RunsTimersInTheOrderOfTheirTimes) {
    EventLoop loop;
    std::vector<int> ran;
    loop.After(milliseconds(20), [&] { ran.push_back(2); });
    loop.After(milliseconds(1), [&] { ran.push_back(1); });
    loop.After(milliseconds(30), [&] { loop.Stop(); });
    loop.Run();
    EXPECT_EQ(ran, (std::vector<int>{1, 2}));
}

TEST(EventLoopTest, ACancelledTimerDoesNotRun) {
    EventLoop loop;
    bool ran = false;
    EventLoop::Timer timer = loop.After(milliseconds(1), [&] { ran = true; });
    loop.Cancel(timer);
    EXPECT_EQ(timer, 0U);
    loop.Cancel(timer);
    loop.After(milliseconds(20), [&] { loop.Stop(); });
    loop.Run();
    EXPECT_FALSE(ran);
}

TEST(EventLoopTest, ATimerMayCancelAnother) {
    EventLoop loop;
    bool ran = false;
    EventLoop::Timer other = 0;
    loop.After(milliseconds(0), [&] { loop.Cancel(other); });
    other = loop.After(milliseconds(0), [&] { ran = true; });
    loop.After(milliseconds(10), [&] { loop.Stop(); });
    loop.Run();
    EXPECT_FALSE(ran);
}

TEST(EventLoopTest, DoesWhatWasPostedBeforeItStops) {
    EventLoop loop;
    int done = 0;
    std::thread other([&] {
        for (int i = 0; i < 1000; ++i) {
            loop.Post([&] { ++done; });
        }
        loop.Stop();
    });
    loop.Run();
    other.join();
    EXPECT_EQ(done, 1000);
}

TEST(CallGateTest, ClosingWaitsForTheCallInProgress) {
    CallGate gate;
    std::promise<void> inside;
    std::atomic<bool> ended{false};
    std::thread caller([&] {
        gate.Run([&] {
            inside.set_value();
            std::this_thread::sleep_for(milliseconds(50));
            ended = true;
        });
    });
    inside.get_future().wait();
    gate.Close();
    EXPECT_TRUE(ended);
    gate.Run([] { FAIL() << "called after its end"; });
    caller.join();
}

TEST(CallGateTest, MayBeClosedByTheCallItself) {
    CallGate gate;
    gate.Run([&] { gate.Close(); });
    gate.Run([] { FAIL() << "called after its end"; });
}

}  // namespace
