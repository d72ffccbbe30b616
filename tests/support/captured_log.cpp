#include "tests/support/captured_log.h"

#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <utility>

#include "link_log.h"
#include "tests/support/eventually.h"
#include "tests/support/system_faults.h"

namespace lumora_test {

namespace {

std::mutex g_mutex;
std::vector<LogLine> g_lines;
bool g_capturing = false;
std::function<void(const LogLine&)> g_hook;

}  // namespace

CapturedLog::CapturedLog() {
    const std::lock_guard<std::mutex> lock(g_mutex);
    g_lines.clear();
    g_capturing = true;
}

CapturedLog::~CapturedLog() {
    const std::lock_guard<std::mutex> lock(g_mutex);
    g_capturing = false;
    g_hook = nullptr;
}

std::vector<LogLine> CapturedLog::Lines() const {
    const std::lock_guard<std::mutex> lock(g_mutex);
    return g_lines;
}

std::vector<std::string> CapturedLog::Texts(int level) const {
    std::vector<std::string> texts;
    for (const LogLine& line : Lines()) {
        if (line.level == level) {
            texts.push_back(line.text);
        }
    }
    return texts;
}

int CapturedLog::Count(int level, const std::string& text) const {
    int count = 0;
    for (const LogLine& line : Lines()) {
        count += line.level == level && line.text == text ? 1 : 0;
    }
    return count;
}

int CapturedLog::IndexOf(int level, const std::string& text) const {
    int index = 0;
    for (const LogLine& line : Lines()) {
        if (line.level == level && line.text == text) {
            return index;
        }
        ++index;
    }
    return -1;
}

bool CapturedLog::WaitFor(int level, const std::string& text) const {
    return Eventually([&] { return Has(level, text); });
}

void CapturedLog::Clear() {
    const std::lock_guard<std::mutex> lock(g_mutex);
    g_lines.clear();
}

void CapturedLog::OnLine(std::function<void(const LogLine&)> hook) {
    const std::lock_guard<std::mutex> lock(g_mutex);
    g_hook = std::move(hook);
}

std::string CapturedLog::Dump() const {
    std::string all;
    for (const LogLine& line : Lines()) {
        all += std::to_string(line.level) + " " + line.function + ": " + line.text + "\n";
    }
    return all;
}

}  // namespace lumora_test

extern "C" void LogInfo(int level, const char*, const char* function, int, const char* format, ...) {
    char text[4096];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text, sizeof(text), format, arguments);
    va_end(arguments);
    const lumora_test::AllocationFaultsPaused paused;
    const lumora_test::LogLine line = {level, function, text};
    std::function<void(const lumora_test::LogLine&)> hook;
    {
        const std::lock_guard<std::mutex> lock(lumora_test::g_mutex);
        if (!lumora_test::g_capturing) {
            return;
        }
        lumora_test::g_lines.push_back(line);
        hook = lumora_test::g_hook;
    }
    if (hook) {
        hook(line);
    }
}
