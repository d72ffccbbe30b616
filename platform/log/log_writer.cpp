#include "log_writer.h"

#include <fcntl.h>
#include <spdlog/details/null_mutex.h>
#include <spdlog/pattern_formatter.h>
#include <spdlog/sinks/base_sink.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/sinks/rotating_file_sink.h>
#include <spdlog/sinks/syslog_sink.h>
#include <sys/stat.h>

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <exception>
#include <string>
#include <utility>

#include "base/unique_fd.h"
#include "signal_shield.h"
#include "stderr_output.h"

namespace lumora_log {
namespace {

constexpr std::chrono::seconds ATTEMPT_INTERVAL(1);
constexpr std::chrono::minutes COMPLAINT_INTERVAL(1);

// Time, level, thread, tag, function and line; syslog knows the time and the level itself.
constexpr char DEFAULT_PATTERN[] = "%Y-%m-%d %H:%M:%S.%e %L %t %n %!:%# %v";
constexpr char SYSLOG_PATTERN[] = "%t %n %!:%# %v";

class StderrSink final : public spdlog::sinks::base_sink<spdlog::details::null_mutex> {
protected:
    void sink_it_(const spdlog::details::log_msg& message) override {
        spdlog::memory_buf_t line;
        formatter_->format(message, line);
        if (!WriteToStderr(line.data(), line.size())) {
            spdlog::throw_spdlog_ex("standard error", errno);
        }
    }
    void flush_() override {}
};

// False for a character device, which takes text but must not be renamed as a full file is. Throws for
// anything else: writing to a pipe without a reader would block the caller forever.
bool IsPlainFile(const std::string& path) {
    const lumora::UniqueFd file(
        open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NONBLOCK | O_NOCTTY, 0644));
    if (!file) {
        spdlog::throw_spdlog_ex("cannot be opened", errno);
    }
    struct stat status {};
    if (fstat(file.Get(), &status) != 0 || !(S_ISREG(status.st_mode) || S_ISCHR(status.st_mode))) {
        spdlog::throw_spdlog_ex("is no file");
    }
    return S_ISREG(status.st_mode);
}

// spdlog creates missing folders. A misspelt path would then send the lines to an unknown place, with the
// rights of the program.
void RequireFolder(const std::string& path) {
    const std::string folder = spdlog::details::os::dir_name(path);
    struct stat status {};
    if (!folder.empty() && stat(folder.c_str(), &status) != 0) {
        spdlog::throw_spdlog_ex("is in a folder that cannot be used", errno);
    }
}

std::unique_ptr<spdlog::sinks::sink> MakeFileSink(const LogSettings& settings) {
    RequireFolder(settings.file);
    if (!IsPlainFile(settings.file)) {
        return std::make_unique<spdlog::sinks::basic_file_sink_st>(settings.file);
    }
    spdlog::file_event_handlers handlers;
    handlers.before_open = RequireFolder;  // also called when a full file was renamed and a new one is opened
    return std::make_unique<spdlog::sinks::rotating_file_sink_st>(settings.file, settings.fileSize,
                                                                  settings.fileCount - 1, false, handlers);
}

std::unique_ptr<spdlog::sinks::sink> MakeSink(const LogSettings& settings) {
    if (!settings.file.empty()) {
        return MakeFileSink(settings);
    }
    if (settings.useSyslog) {
        // An empty name: syslog then uses the program's.
        return std::make_unique<spdlog::sinks::syslog_sink_st>("", LOG_PID, LOG_USER, true);
    }
    return std::make_unique<StderrSink>();
}

std::unique_ptr<spdlog::formatter> MakeFormatter(const LogSettings& settings) {
    const char* const fallback = settings.useSyslog ? SYSLOG_PATTERN : DEFAULT_PATTERN;
    return std::make_unique<spdlog::pattern_formatter>(settings.pattern.empty() ? fallback : settings.pattern,
                                                       spdlog::pattern_time_type::local,
                                                       settings.useSyslog ? "" : "\n");
}

}  // namespace

LogWriter::LogWriter(LogSettings settings) : mSettings(std::move(settings)) {
    const SignalShield shield;
    OpenFirst();
}

LogWriter::~LogWriter() = default;

// A file that cannot be opened at the start is a mistake in the settings. Standard error makes it visible.
void LogWriter::OpenFirst() {
    try {
        Open();
    } catch (const std::exception& failure) {
        ReportToStderr("LUMORA_LOG_FILE: \"%s\" %s; standard error is taken", mSettings.file.c_str(),
                       failure.what());
        mSettings.file.clear();
        Open();
    }
}

void LogWriter::Open() {
    auto sink = MakeSink(mSettings);
    sink->set_formatter(MakeFormatter(mSettings));
    mSink = std::move(sink);
}

bool LogWriter::OpenAgain() {
    if (Clock::now() < mNextAttempt) {
        return false;
    }
    Open();
    ReportLostLines();
    return true;
}

void LogWriter::Write(const LogLine& line) {
    const lumora::MutexLock lock(mMutex);
    const SignalShield shield;
    try {
        if (mSink == nullptr && !OpenAgain()) {
            ++mLostLines;
            return;
        }
        Put(line);
    } catch (const std::exception& failure) {
        ++mLostLines;
        Fail(failure.what());
    }
}

void LogWriter::Put(const LogLine& line) {
    const spdlog::source_loc place("", line.line, line.function);
    const auto level = static_cast<spdlog::level::level_enum>(line.level);
    const spdlog::details::log_msg message(place, line.tag, level,
                                           spdlog::string_view_t(line.text.data(), line.text.size()));
    mSink->log(message);
    // Flushed at once: the last lines before a crash matter most.
    mSink->flush();
}

void LogWriter::ReportLostLines() {
    char text[64];
    const int length = snprintf(text, sizeof(text), "%" PRIu64 " log lines were lost", mLostLines);
    Put({3, "link_log", __func__, __LINE__, std::string_view(text, static_cast<size_t>(length))});
    mLostLines = 0;
}

// Drops the sink: after a failure spdlog may have left it without an open file. Write opens a new one later.
void LogWriter::Fail(const char* reason) {
    mSink.reset();
    const auto now = Clock::now();
    mNextAttempt = now + ATTEMPT_INTERVAL;
    if (!mSettings.file.empty() && now >= mNextComplaint) {
        mNextComplaint = now + COMPLAINT_INTERVAL;
        ReportToStderr("LUMORA_LOG_FILE: \"%s\" %s; log lines are lost", mSettings.file.c_str(), reason);
    }
}

}  // namespace lumora_log
