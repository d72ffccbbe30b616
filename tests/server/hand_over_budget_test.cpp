#include "server/hand_over_budget.h"

#include <gtest/gtest.h>

namespace lumora_test {
namespace {

using lumoraAiModule::HandOverBudget;
using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr char PEER[] = "192.0.2.1";
constexpr milliseconds WANTED{7000};

class HandOverBudgetTest : public testing::Test {
protected:
    milliseconds Limit(const char* address = PEER, milliseconds wanted = WANTED) {
        return mBudget.Limit(address, wanted, mNow);
    }
    void Take(milliseconds took, const char* address = PEER) { mBudget.OnTaken(address, took, mNow); }

    HandOverBudget mBudget;
    HandOverBudget::Clock::time_point mNow{};
};

TEST_F(HandOverBudgetTest, FirstStopGetsWhatItWants) {
    EXPECT_EQ(WANTED, Limit());
    EXPECT_EQ(milliseconds(2000), Limit(PEER, milliseconds(2000)));
}

TEST_F(HandOverBudgetTest, ALongStopLeavesLessToTheNextOne) {
    Take(milliseconds(4000));
    EXPECT_EQ(milliseconds(3000), Limit());
    Take(milliseconds(2500));
    EXPECT_EQ(HandOverBudget::LEAST, Limit());
    Take(milliseconds(6000));
    EXPECT_EQ(HandOverBudget::LEAST, Limit());
}

TEST_F(HandOverBudgetTest, QuickStopsCostNothing) {
    for (int stop = 0; stop < 1000; ++stop) {
        Take(milliseconds(50));
    }
    EXPECT_EQ(WANTED, Limit());
}

TEST_F(HandOverBudgetTest, TimeIsGivenBack) {
    Take(WANTED);
    mNow += seconds(10);
    EXPECT_EQ(milliseconds(2000), Limit());
    mNow += seconds(100);
    EXPECT_EQ(WANTED, Limit());
}

TEST_F(HandOverBudgetTest, OtherAddressesAndThisHostAreNotLimited) {
    Take(WANTED);
    Take(WANTED, "127.0.0.1");
    EXPECT_EQ(WANTED, Limit("192.0.2.2"));
    EXPECT_EQ(WANTED, Limit("127.0.0.1"));
}

}  // namespace
}  // namespace lumora_test
