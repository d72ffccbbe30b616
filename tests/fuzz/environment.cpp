// What the library's objects call and a fuzz target does without: a log that is formatted but not kept, and
// the faults that unit tests make.
#include <cstdarg>
#include <cstdio>

#include "link_log.h"
#include "tests/support/system_faults.h"

// Formatted if a device with the default settings would: what a peer sent goes through the arguments.
extern "C" void LogInfo(int level, const char*, const char*, int, const char* format, ...) {
    constexpr int WRITTEN_BY_DEFAULT = 2;
    if (level < WRITTEN_BY_DEFAULT) {
        return;
    }
    char text[512];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text, sizeof(text), format, arguments);
    va_end(arguments);
}

namespace lumora_test {

AllocationFaultsPaused::AllocationFaultsPaused() = default;
AllocationFaultsPaused::~AllocationFaultsPaused() = default;

SystemFaultsPaused::SystemFaultsPaused() = default;
SystemFaultsPaused::~SystemFaultsPaused() = default;

}  // namespace lumora_test
