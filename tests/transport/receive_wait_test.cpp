// A wait for data that other threads end.
#include "transport/receive_wait.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <optional>
#include <thread>

#include "tests/support/eventually.h"

namespace lumora_test {
namespace {

using lumoraAiModule::Descriptor;
using lumoraAiModule::ReceiveWait;

class ReceiveWaitTest : public testing::Test {
protected:
    ReceiveWaitTest() {
        int ends[2] = {};
        EXPECT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends));
        mSocket = Descriptor::Adopt(ends[0]);
        mPeer = Descriptor::Adopt(ends[1]);
    }
    // Waits on a thread of its own and runs action once it waits.
    template <typename Action>
    ReceiveWait::Result WaitDuring(const Action& action) {
        std::atomic<ReceiveWait::Result> result{ReceiveWait::Result::FAILED};
        std::thread waiting([&] { result = mWait.ForData(mSocket); });
        EXPECT_TRUE(Eventually([&] { return mWait.IsWaiting(); }));
        action();
        waiting.join();
        EXPECT_FALSE(mWait.IsWaiting());
        return result;
    }

    ReceiveWait mWait;
    Descriptor mSocket;
    Descriptor mPeer;
};

TEST_F(ReceiveWaitTest, DataEndIt) {
    EXPECT_EQ(ReceiveWait::Result::READABLE,
              WaitDuring([&] { EXPECT_EQ(1, write(mPeer.Number(), "x", 1)); }));
}

TEST_F(ReceiveWaitTest, AnotherThreadEndsItAtOnceOrSoon) {
    EXPECT_EQ(ReceiveWait::Result::NOT_YET, WaitDuring([&] { mWait.End(); }));
    EXPECT_EQ(ReceiveWait::Result::NOT_YET,
              WaitDuring([&] { mWait.EndSoon(std::chrono::microseconds(80)); }));
}

TEST_F(ReceiveWaitTest, EndBeforeItEndsTheNextOne) {
    mWait.End();
    EXPECT_EQ(ReceiveWait::Result::NOT_YET, mWait.ForData(mSocket));
}

TEST_F(ReceiveWaitTest, OneEndEndsOneWait) {
    mWait.End();
    mWait.ForData(mSocket);
    EXPECT_EQ(ReceiveWait::Result::READABLE,
              WaitDuring([&] { EXPECT_EQ(1, write(mPeer.Number(), "x", 1)); }));
}

TEST_F(ReceiveWaitTest, EveryEndSoonEndsAWait) {
    for (int i = 0; i < 100; ++i) {
        ASSERT_EQ(ReceiveWait::Result::NOT_YET,
                  WaitDuring([&] { mWait.EndSoon(std::chrono::microseconds(80)); }));
    }
}

// EndSoon cannot reach a wait without a timer. A sender must not rely on it, or small frames stay in the
// kernel.
TEST_F(ReceiveWaitTest, WithoutATimerNoThreadCountsAsWaiting) {
    rlimit usual = {};
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &usual));
    const rlimit none{0, usual.rlim_max};
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &none));
    std::optional<ReceiveWait> wait(std::in_place);
    setrlimit(RLIMIT_NOFILE, &usual);

    std::atomic<bool> ended{false};
    bool counted = false;
    std::thread waiting([&] {
        EXPECT_EQ(ReceiveWait::Result::NOT_YET, wait->ForData(mSocket));
        ended = true;
    });
    while (!ended) {
        counted = counted || wait->IsWaiting();
        std::this_thread::yield();
    }
    waiting.join();
    EXPECT_FALSE(counted);
}

}  // namespace
}  // namespace lumora_test
