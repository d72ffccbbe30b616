// Where log lines go, and what happens when they cannot go there.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string_view>

#include "log_settings.h"

namespace spdlog::sinks {
class sink;
}

namespace lumora_log {

struct LogLine {
    int level;  // 0 to 4
    const char* tag;
    const char* function;
    int line;
    std::string_view text;
};

// Writes lines one after the other. A line that cannot be written is lost; the output is opened anew a little
// later, and the number of lost lines is then the first thing that it is told.
class LogWriter {
public:
    explicit LogWriter(LogSettings settings);
    ~LogWriter();
    LogWriter(const LogWriter&) = delete;
    LogWriter& operator=(const LogWriter&) = delete;

    void Write(const LogLine& line);

    // Around a fork, as of a LineLimit.
    void Lock() { mMutex.lock(); }
    void Unlock() { mMutex.unlock(); }

private:
    using Clock = std::chrono::steady_clock;

    void OpenFirst();
    void Open();
    bool OpenAgain();
    void Put(const LogLine& line);
    void ReportLostLines();
    void Fail(const char* reason);

    LogSettings mSettings;                       // never changes once the output was opened
    std::mutex mMutex;                           // guards everything below
    std::unique_ptr<spdlog::sinks::sink> mSink;  // null while the output is out of order
    Clock::time_point mNextAttempt;
    Clock::time_point mNextComplaint;
    uint64_t mLostLines = 0;
};

}  // namespace lumora_log
