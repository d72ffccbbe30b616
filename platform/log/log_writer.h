// Writes log lines to a file, to syslog or to standard error, and tries again after a failure.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string_view>

#include "base/mutex.h"
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

// Writes one line at a time. A line that cannot be written is lost. The output is opened again one second
// later at the earliest, and its first line is then the number of lost lines.
class LogWriter {
public:
    explicit LogWriter(LogSettings settings);
    ~LogWriter();
    LogWriter(const LogWriter&) = delete;
    LogWriter& operator=(const LogWriter&) = delete;

    void Write(const LogLine& line);

    // Around a fork: see LockLog in link_log.cpp.
    void Lock() ACQUIRE(mMutex) { mMutex.lock(); }
    void Unlock() RELEASE(mMutex) { mMutex.unlock(); }

private:
    using Clock = std::chrono::steady_clock;

    void OpenFirst() REQUIRES(mMutex);
    void Open() REQUIRES(mMutex);
    bool OpenAgain() REQUIRES(mMutex);
    void Put(const LogLine& line) REQUIRES(mMutex);
    void ReportLostLines() REQUIRES(mMutex);
    void Fail(const char* reason) REQUIRES(mMutex);

    lumora::Mutex mMutex;
    LogSettings mSettings GUARDED_BY(mMutex);
    std::unique_ptr<spdlog::sinks::sink> mSink GUARDED_BY(mMutex);  // null while the output cannot be written
    Clock::time_point mNextAttempt GUARDED_BY(mMutex);
    Clock::time_point mNextComplaint GUARDED_BY(mMutex);
    uint64_t mLostLines GUARDED_BY(mMutex) = 0;
};

}  // namespace lumora_log
