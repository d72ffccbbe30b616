#include "library/callback_scope.h"

#include <gmock/gmock.h>

#include <thread>

namespace lumora {
namespace {

TEST(CallbackScopeTest, ThreadIsInsideWhileAScopeOfThatSideLives) {
    EXPECT_FALSE(CallbackScope::Inside(Side::CLIENT));
    {
        const CallbackScope scope(Side::CLIENT);
        EXPECT_TRUE(CallbackScope::Inside(Side::CLIENT));
        EXPECT_FALSE(CallbackScope::Inside(Side::SERVER));
    }
    EXPECT_FALSE(CallbackScope::Inside(Side::CLIENT));
}

TEST(CallbackScopeTest, ScopesNest) {
    const CallbackScope outer(Side::SERVER);
    {
        const CallbackScope inner(Side::SERVER);
        const CallbackScope other(Side::CLIENT);
        EXPECT_TRUE(CallbackScope::Inside(Side::SERVER));
        EXPECT_TRUE(CallbackScope::Inside(Side::CLIENT));
    }
    EXPECT_TRUE(CallbackScope::Inside(Side::SERVER));
    EXPECT_FALSE(CallbackScope::Inside(Side::CLIENT));
}

TEST(CallbackScopeTest, OtherThreadsAreOutside) {
    const CallbackScope scope(Side::SERVER);
    const std::atomic<bool> running{true};
    const DataCallbackScope data(running);
    std::thread([] {
        EXPECT_FALSE(CallbackScope::Inside(Side::SERVER));
        EXPECT_EQ(nullptr, DataCallbackScope::TransportRunning());
    }).join();
}

TEST(CallbackScopeTest, ScopeEndsWhenAnExceptionLeavesIt) {
    EXPECT_THROW(
        {
            const CallbackScope scope(Side::CLIENT);
            throw 1;
        },
        int);
    EXPECT_FALSE(CallbackScope::Inside(Side::CLIENT));
}

TEST(CallbackScopeTest, DataScopeTellsWhetherItsTransportRuns) {
    std::atomic<bool> running{true};
    EXPECT_EQ(nullptr, DataCallbackScope::TransportRunning());
    {
        const DataCallbackScope scope(running);
        ASSERT_EQ(&running, DataCallbackScope::TransportRunning());
        running = false;
        EXPECT_FALSE(*DataCallbackScope::TransportRunning());
    }
    EXPECT_EQ(nullptr, DataCallbackScope::TransportRunning());
}

}  // namespace
}  // namespace lumora
