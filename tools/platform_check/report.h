// What is found, and how it comes from the process that looks to the one that writes: the library that is
// looked at may end its process.
#pragma once

#include <functional>
#include <string>

#include "base/unique_fd.h"

namespace platform_check {

// One line of the result.
struct Finding {
    enum class Result { HOLDS, DEVIATES, NOTE };

    Result result = Result::HOLDS;
    std::string area = {};
    std::string rule = {};
    std::string expected = {};  // these two only if it deviates
    std::string seen = {};
};

// The side of the process that looks.
class Report {
public:
    explicit Report(int fd) : mFd(fd) {}

    // What the next findings are about, in one word.
    void Begin(const std::string& area) { mArea = area; }

    // Checks a rule: look returns what was seen instead, or an empty text if the rule holds. Returns whether
    // it holds. The rule is written before look runs, so that a crash can be reported with it.
    bool Check(const std::string& rule, const std::string& expected,
               const std::function<std::string()>& look);

    // Beside the rules.
    void Note(const std::string& text);

private:
    void Write(char kind, const std::string& rule, const std::string& expected, const std::string& seen);

    int mFd;
    std::string mArea;
};

// Runs look in a process of its own, and hands over what it finds as it comes. That the process ends early,
// or says nothing for so many seconds, is a finding, too.
void RunApart(unsigned limitSeconds, const std::function<void(Report&)>& look,
              const std::function<void(const Finding&)>& take);

}  // namespace platform_check
