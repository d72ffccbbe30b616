// Checks of an exported function, as a table of wrong calls.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "tests/api/api_fixture.h"

namespace lumora_test {

// What a wrong call is wrong in. Two faults of one argument exclude each other.
enum class Argument { STATE, CLIENT_ID, TEXT, SECOND_TEXT, DATA, LENGTH, OUTPUT, TIMEOUT, CALLBACK, RECORD };

// Call has a default that passes all checks, an operator() that makes the call, Untouched, which tells
// whether what it was to fill is as before, and the member initialised.
template <typename Call>
struct Fault {
    Argument argument;
    std::string message;
    std::function<void(Call&)> apply;
};

class CheckTest : public ApiTest {
protected:
    // The state that a call finds.
    virtual void Prepare(bool initialised) = 0;

    // faults are in the order of the checks: of two the first is the one that is logged, alone.
    template <typename Call>
    void ExpectChecksInOrder(const Texts& entry, const std::vector<Fault<Call>>& faults) {
        for (std::size_t first = 0; first < faults.size(); ++first) {
            ExpectRefusal<Call>(entry, faults[first], faults[first]);
            for (std::size_t second = first + 1; second < faults.size(); ++second) {
                if (faults[first].argument != faults[second].argument) {
                    ExpectRefusal<Call>(entry, faults[first], faults[second]);
                }
            }
        }
    }

private:
    template <typename Call>
    void ExpectRefusal(const Texts& entry, const Fault<Call>& logged, const Fault<Call>& other) {
        Call call;
        logged.apply(call);
        other.apply(call);
        Prepare(call.initialised);
        mLog.Clear();
        EXPECT_EQ(-1, call()) << logged.message << other.message;
        Texts expected = entry;
        expected.push_back("4 " + logged.message);
        EXPECT_EQ(expected, Log()) << "with " << other.message;
        EXPECT_TRUE(call.Untouched()) << logged.message;
    }
};

}  // namespace lumora_test
