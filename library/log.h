// The one way in which this library writes to the device's log.
#pragma once

#include "link_log.h"

namespace lumora {

// 0 entry and exit traces, 1 details, 2 successes and changes of state, 3 warnings, 4 errors.
enum LogLevel { LOG_TRACE = 0, LOG_DETAIL = 1, LOG_STATE = 2, LOG_WARNING = 3, LOG_ERROR = 4 };

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
#pragma GCC diagnostic ignored "-Wformat-security"
// Shared by all places that log values of the same types: the tag costs each of them ten bytes of ARM code.
template <typename... Values>
void Log(LogLevel level, const char* function, int line, const char* format, Values... values) {
    LogInfo(level, "LUMRA", function, line, format, values...);
}
#pragma GCC diagnostic pop

}  // namespace lumora

// The first call is never made: by it, the compiler compares the values with the format.
#define LUMORA_LOG_AT(level, function, line, ...)                  \
    do {                                                           \
        if (false) {                                               \
            LogInfo((level), "", (function), (line), __VA_ARGS__); \
        }                                                          \
        lumora::Log((level), (function), (line), __VA_ARGS__);     \
    } while (false)
// For helpers: the log names the operation that they are a piece of.
#define LUMORA_LOG_AS(level, operation, ...) LUMORA_LOG_AT(level, operation, __LINE__, __VA_ARGS__)
#define LUMORA_LOG(level, ...) LUMORA_LOG_AT(level, __func__, __LINE__, __VA_ARGS__)
#define LUMORA_TRACE(...) LUMORA_LOG(lumora::LOG_TRACE, __VA_ARGS__)
#define LUMORA_DETAIL(...) LUMORA_LOG(lumora::LOG_DETAIL, __VA_ARGS__)
#define LUMORA_STATE(...) LUMORA_LOG(lumora::LOG_STATE, __VA_ARGS__)
#define LUMORA_WARNING(...) LUMORA_LOG(lumora::LOG_WARNING, __VA_ARGS__)
#define LUMORA_ERROR(...) LUMORA_LOG(lumora::LOG_ERROR, __VA_ARGS__)
