// The log of the code under test, as a test reads it. Linking this defines LogInfo.
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace lumora_test {

struct LogLine {
    int level;
    std::string function;
    std::string text;
};

// Collects what is logged while it lives; one at a time.
class CapturedLog {
public:
    CapturedLog();
    ~CapturedLog();
    CapturedLog(const CapturedLog&) = delete;
    CapturedLog& operator=(const CapturedLog&) = delete;

    std::vector<LogLine> Lines() const;
    // The texts of one level, in order.
    std::vector<std::string> Texts(int level) const;
    int Count(int level, const std::string& text) const;
    bool Has(int level, const std::string& text) const { return Count(level, text) > 0; }
    // Where in Lines() the text stands first, -1 when it does not.
    int IndexOf(int level, const std::string& text) const;
    // Waits for another thread to log it.
    bool WaitFor(int level, const std::string& text) const;
    void Clear();
    // Calls hook for every line, on the thread that logs it and before that thread goes on: so a test can
    // hold a thread at a known place. Set it while nothing logs.
    void OnLine(std::function<void(const LogLine&)> hook);
    // Everything, one line each, for a failing test's message.
    std::string Dump() const;
};

}  // namespace lumora_test
