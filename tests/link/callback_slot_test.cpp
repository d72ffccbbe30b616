#include "link/callback_slot.h"

#include <gmock/gmock.h>

#include <atomic>
#include <future>
#include <stdexcept>
#include <thread>

#include "tests/support/eventually.h"
#include "tests/support/system_faults.h"

namespace lumora {
namespace {

using lumora_test::Eventually;

struct Callback {
    std::atomic<int> calls{0};
};

constexpr int NOT_CALLED = -1;

class CallbackSlotTest : public testing::Test {
protected:
    // Calls from another thread, stays inside until it is let go.
    class HeldCall {
    public:
        explicit HeldCall(CallbackSlot<Callback>& slot)
            : mThread([this, &slot] {
                  mResult = slot.Call(
                      [this](Callback& callback) {
                          ++callback.calls;
                          mEntered.set_value();
                          mLetGo.get_future().wait();
                          mLeft = true;
                          return 3;
                      },
                      NOT_CALLED);
              }) {
            mEntered.get_future().wait();
        }
        ~HeldCall() {
            if (mThread.joinable()) {
                LetGo();
            }
        }
        HeldCall(const HeldCall&) = delete;
        HeldCall& operator=(const HeldCall&) = delete;

        int LetGo() {
            mLetGo.set_value();
            mThread.join();
            return mResult;
        }
        bool Left() const { return mLeft; }
        // Lets it go without waiting for its end.
        void Release() { mLetGo.set_value(); }
        void Join() { mThread.join(); }

    private:
        std::promise<void> mEntered;
        std::promise<void> mLetGo;
        std::atomic<bool> mLeft{false};
        int mResult = 0;
        std::thread mThread;
    };

    int Call(int result = 3) {
        return mSlot.Call(
            [&](Callback& callback) {
                ++callback.calls;
                return result;
            },
            NOT_CALLED);
    }

    CallbackSlot<Callback> mSlot;
    Callback mCallback;
    Callback mOther;
};

TEST_F(CallbackSlotTest, EmptySlotCallsNothing) {
    EXPECT_FALSE(mSlot.IsSet());
    EXPECT_EQ(NOT_CALLED, Call());
}

TEST_F(CallbackSlotTest, SetCallbackIsCalledAndItsResultReturned) {
    mSlot.Set(&mCallback);
    EXPECT_TRUE(mSlot.IsSet());
    EXPECT_EQ(3, Call());
    EXPECT_EQ(1, mCallback.calls);
}

TEST_F(CallbackSlotTest, CallbackSetLastIsCalled) {
    mSlot.Set(&mCallback);
    mSlot.Set(&mOther);
    Call();
    EXPECT_EQ(0, mCallback.calls);
    EXPECT_EQ(1, mOther.calls);
    mSlot.Set(nullptr);
    EXPECT_FALSE(mSlot.IsSet());
    EXPECT_EQ(NOT_CALLED, Call());
}

TEST_F(CallbackSlotTest, WithdrawnCallbackIsNotCalled) {
    mSlot.Set(&mCallback);
    mSlot.Withdraw(&mCallback);
    EXPECT_FALSE(mSlot.IsSet());
    EXPECT_EQ(NOT_CALLED, Call());
}

TEST_F(CallbackSlotTest, WithdrawalLeavesAnotherCallback) {
    mSlot.Set(&mCallback);
    mSlot.Withdraw(&mOther);
    EXPECT_EQ(3, Call());
}

TEST_F(CallbackSlotTest, CallsRunBesideEachOther) {
    mSlot.Set(&mCallback);
    HeldCall first(mSlot);
    HeldCall second(mSlot);
    EXPECT_EQ(4, Call(4));
    EXPECT_EQ(3, mCallback.calls);
}

TEST_F(CallbackSlotTest, CallsNest) {
    mSlot.Set(&mCallback);
    EXPECT_EQ(7, mSlot.Call([&](Callback&) { return Call(7); }, NOT_CALLED));
    mSlot.Withdraw(&mCallback);
}

TEST_F(CallbackSlotTest, WithdrawalWaitsForACallInProgress) {
    mSlot.Set(&mCallback);
    HeldCall call(mSlot);
    std::atomic<bool> withdrawn{false};
    bool callHadEnded = false;
    std::thread withdrawal([&] {
        mSlot.Withdraw(&mCallback);
        callHadEnded = call.Left();
        withdrawn = true;
    });
    EXPECT_TRUE(Eventually([&] { return !mSlot.IsSet(); }));  // refuses at once ...
    EXPECT_EQ(NOT_CALLED, Call());
    EXPECT_FALSE(withdrawn);  // ... and waits
    call.Release();
    withdrawal.join();
    EXPECT_TRUE(callHadEnded);
    call.Join();
}

TEST_F(CallbackSlotTest, WithdrawalWaitsForEveryCallInProgress) {
    mSlot.Set(&mCallback);
    HeldCall first(mSlot);
    HeldCall second(mSlot);
    bool bothHadEnded = false;
    std::thread withdrawal([&] {
        mSlot.Withdraw(&mCallback);
        bothHadEnded = first.Left() && second.Left();
    });
    EXPECT_TRUE(Eventually([&] { return !mSlot.IsSet(); }));
    EXPECT_EQ(3, first.LetGo());
    EXPECT_EQ(3, second.LetGo());
    withdrawal.join();
    EXPECT_TRUE(bothHadEnded);
}

TEST_F(CallbackSlotTest, ReplacedCallbackIsStillWaitedFor) {
    mSlot.Set(&mCallback);
    HeldCall call(mSlot);
    mSlot.Set(&mOther);
    bool callHadEnded = false;
    std::promise<void> started;
    std::thread withdrawal([&] {
        started.set_value();
        mSlot.Withdraw(&mCallback);
        callHadEnded = call.Left();
    });
    started.get_future().wait();
    call.Release();
    withdrawal.join();
    EXPECT_TRUE(callHadEnded);
    EXPECT_EQ(3, Call());  // the other's
    EXPECT_EQ(1, mOther.calls);
    call.Join();
}

TEST_F(CallbackSlotTest, WithdrawalDoesNotWaitForCallsOfAnother) {
    mSlot.Set(&mCallback);
    HeldCall call(mSlot);
    mSlot.Set(&mOther);
    mSlot.Withdraw(&mOther);
    EXPECT_FALSE(call.Left());
}

TEST_F(CallbackSlotTest, SlotMayBeUsedFromWithinACall) {
    mSlot.Set(&mCallback);
    mSlot.Call(
        [&](Callback&) {
            EXPECT_TRUE(mSlot.IsSet());
            mSlot.Set(&mOther);
            return 0;
        },
        NOT_CALLED);
    Call();
    EXPECT_EQ(1, mOther.calls);
}

TEST_F(CallbackSlotTest, CallThatThrowsIsOver) {
    mSlot.Set(&mCallback);
    EXPECT_THROW(mSlot.Call([](Callback&) -> int { throw std::runtime_error("call"); }, NOT_CALLED),
                 std::runtime_error);
    mSlot.Withdraw(&mCallback);  // and does not wait
}

TEST_F(CallbackSlotTest, CallThatFindsNoMemoryIsNotMade) {
    mSlot.Set(&mCallback);
    lumora_test::FailAllocation();
    EXPECT_THROW(Call(), std::bad_alloc);
    lumora_test::ResetAllocationFaults();
    EXPECT_EQ(0, mCallback.calls);
    mSlot.Withdraw(&mCallback);
}

TEST_F(CallbackSlotTest, CallbackMayDieRightAfterItsWithdrawal) {
    std::atomic<bool> stop{false};
    std::thread caller([&] {
        while (!stop) {
            Call();
            std::this_thread::yield();
        }
    });
    for (int i = 0; i < 300; ++i) {  // a sanitizer sees a call into a dead one
        const auto callback = std::make_unique<Callback>();
        mSlot.Set(callback.get());
        std::this_thread::yield();
        mSlot.Withdraw(callback.get());
    }
    stop = true;
    caller.join();
    EXPECT_FALSE(mSlot.IsSet());
}

}  // namespace
}  // namespace lumora
