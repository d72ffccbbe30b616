// Where log lines go, and what happens when they cannot go there.
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
