#include "log_settings.h"

#include <charconv>
#include <cstdlib>
#include <string_view>

#include "stderr_output.h"

namespace lumora_log {
namespace {

// Empty when the variable is not set; an empty value means the same.
std::string_view Variable(const char* name) {
    const char* const value = secure_getenv(name);
    return value == nullptr ? std::string_view() : std::string_view(value);
}

template <typename Number>
void ReadNumber(const char* name, Number lowest, Number highest, Number& setting) {
    const std::string_view text = Variable(name);
    if (text.empty()) {
        return;
    }
    Number value{};
    const auto [end, error] = std::from_chars(text.begin(), text.end(), value);
    if (error == std::errc() && end == text.end() && lowest <= value && value <= highest) {
        setting = value;
        return;
    }
    ReportToStderr("%s: \"%.40s\" is no number from %lld to %lld; %lld is taken", name, text.data(),
                   static_cast<long long>(lowest), static_cast<long long>(highest),
                   static_cast<long long>(setting));
}

}  // namespace

LogSettings ReadLogSettings() {
    LogSettings settings;
    ReadNumber("LUMORA_LOG_LEVEL", 0, 5, settings.threshold);
    ReadNumber<size_t>("LUMORA_LOG_FILE_SIZE", 4096, 1U << 30, settings.fileSize);
    ReadNumber<size_t>("LUMORA_LOG_FILE_COUNT", 1, 100, settings.fileCount);
    ReadNumber("LUMORA_LOG_LIMIT", 0U, 1000000U, settings.limit);
    int useSyslog = 0;
    ReadNumber("LUMORA_LOG_SYSLOG", 0, 1, useSyslog);
    settings.useSyslog = useSyslog == 1;
    settings.file = Variable("LUMORA_LOG_FILE");
    settings.pattern = Variable("LUMORA_LOG_PATTERN");
    if (settings.useSyslog && !settings.file.empty()) {
        ReportToStderr("LUMORA_LOG_SYSLOG is left aside for LUMORA_LOG_FILE");
        settings.useSyslog = false;
    }
    return settings;
}

}  // namespace lumora_log
