#include "link_log.h"

#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cinttypes>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string_view>

#include "base/mutex.h"
#include "line_limit.h"
#include "log_settings.h"
#include "log_writer.h"

namespace lumora_log {
namespace {

constexpr int LOWEST_LEVEL = 0;
constexpr int HIGHEST_LEVEL = 4;
// Levels 0 and 1 are never limited: they are debug output that a user has switched on.
constexpr int LOWEST_LIMITED_LEVEL = 2;
constexpr size_t LONGEST_LINE = 2048;
constexpr char CUT_MARK[] = "...";

// Until the environment has been read, the threshold lets every line through to WriteLine, which reads it.
// The threshold is constant-initialised, so that constructors of other libraries can log before ours have
// run.
constexpr int NOT_READ = INT_MIN;
std::atomic<int> threshold{NOT_READ};

struct Log {
    explicit Log(const LogSettings& settings) : limit(settings.limit), writer(settings) {}

    LineLimit limit;
    LogWriter writer;
};

// Made with the first line. Both are constant-initialised, as the threshold is.
lumora::Mutex creation;  // the outermost lock of the log
std::atomic<Log*> theLog{nullptr};

// pthread_atfork runs these two around a fork:
//   thread A holds a lock of the log, because it makes the log or writes a line
//   thread B forks; the child has thread B alone, and a copy of the locked mutex
//   therefore the child would wait forever at its first line.
// The analysis cannot see that UnlockLog follows LockLog.
void LockLog() NO_THREAD_SAFETY_ANALYSIS {
    creation.lock();
    if (Log* const log = theLog) {
        log->limit.Lock();
        log->writer.Lock();
    }
}

void UnlockLog() NO_THREAD_SAFETY_ANALYSIS {
    if (Log* const log = theLog) {
        log->writer.Unlock();
        log->limit.Unlock();
    }
    creation.unlock();
}

// Not with the first line: another thread may fork meanwhile.
__attribute__((constructor)) void WatchForks() { pthread_atfork(LockLog, UnlockLog, UnlockLog); }

std::unique_ptr<Log> MakeLog() {
    const LogSettings settings = ReadLogSettings();
    auto log = std::make_unique<Log>(settings);
    threshold.store(settings.threshold, std::memory_order_relaxed);
    return log;
}

// Never destroyed: threads and static objects may log until the process ends. Not a static local: a child
// that is forked while another thread makes that would wait for the thread forever.
Log& TheLog() {
    if (Log* const log = theLog) {
        return *log;
    }
    const lumora::MutexLock lock(creation);
    if (theLog == nullptr) {
        theLog = MakeLog().release();
    }
    return *theLog;
}

// Restores errno: callers log a failure first and evaluate errno afterwards.
class ErrnoKeeper {
public:
    ErrnoKeeper() : mValue(errno) {}
    ~ErrnoKeeper() { errno = mValue; }
    ErrnoKeeper(const ErrnoKeeper&) = delete;
    ErrnoKeeper& operator=(const ErrnoKeeper&) = delete;

private:
    const int mValue;
};

__attribute__((format(printf, 2, 0))) std::string_view FormatLine(char (&buffer)[LONGEST_LINE],
                                                                  const char* format, va_list arguments) {
    if (format == nullptr) {
        return {};
    }
    const int wanted = vsnprintf(buffer, sizeof(buffer), format, arguments);
    if (wanted < 0) {
        return format;
    }
    auto length = static_cast<size_t>(wanted);
    if (length >= sizeof(buffer)) {
        length = sizeof(buffer) - 1;
        memcpy(buffer + length - (sizeof(CUT_MARK) - 1), CUT_MARK, sizeof(CUT_MARK) - 1);
    } else if (length > 0 && buffer[length - 1] == '\n') {
        --length;
    }
    return {buffer, length};
}

// Whether the line may be written. After suppressed lines, first writes how many were dropped.
bool IsAdmitted(Log& log, const LogLine& place) {
    if (place.level < LOWEST_LIMITED_LEVEL) {
        return true;
    }
    const auto leftOut =
        log.limit.Admit({place.tag, place.function, place.line}, std::chrono::steady_clock::now());
    if (leftOut && *leftOut != 0) {
        char text[80];
        const int length =
            snprintf(text, sizeof(text), "%" PRIu64 " more lines from here were left out", *leftOut);
        LogLine summary = place;
        summary.text = std::string_view(text, static_cast<size_t>(length));
        log.writer.Write(summary);
    }
    return leftOut.has_value();
}

const char* OrEmpty(const char* text) { return text == nullptr ? "" : text; }

// Out of line, so that a call that is filtered pays for no stack buffer.
__attribute__((noinline, format(printf, 5, 0))) void WriteLine(int level, const char* tag,
                                                               const char* function, int line,
                                                               const char* format, va_list arguments) {
    const ErrnoKeeper keeper;
    Log& log = TheLog();
    level = std::min(level, HIGHEST_LEVEL);
    if (level < threshold.load(std::memory_order_relaxed)) {
        return;
    }
    LogLine written = {std::max(level, LOWEST_LEVEL), OrEmpty(tag), OrEmpty(function), line, {}};
    if (!IsAdmitted(log, written)) {
        return;
    }
    char buffer[LONGEST_LINE];
    written.text = FormatLine(buffer, format, arguments);
    log.writer.Write(written);
}

}  // namespace
}  // namespace lumora_log

__attribute__((visibility("default"))) void LogInfo(int level, const char* tag, const char* function,
                                                    int line, const char* format, ...) {
    if (level < lumora_log::threshold.load(std::memory_order_relaxed)) {
        return;
    }
    va_list arguments;
    va_start(arguments, format);
    try {
        lumora_log::WriteLine(level, tag, function, line, format, arguments);
    } catch (...) {
        // Without memory the line is lost; the caller's work goes on.
    }
    va_end(arguments);
}
