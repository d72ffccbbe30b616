// The one way in which this library writes to the device's log.
#pragma once

#include "link_log.h"

namespace lumora {

// 0 entry and exit traces, 1 details, 2 successes and changes of state, 3 warnings, 4 errors.
enum LogLevel { LOG_TRACE = 0, LOG_DETAIL = 1, LOG_STATE = 2, LOG_WARNING = 3, LOG_ERROR = 4 };

}  // namespace lumora

#define LUMORA_LOG(level, ...) LogInfo((level), "LUMRA", __func__, __LINE__, __VA_ARGS__)
// For helpers: the log names the operation that they are a piece of.
#define LUMORA_LOG_AS(level, operation, ...) LogInfo((level), "LUMRA", (operation), __LINE__, __VA_ARGS__)
#define LUMORA_TRACE(...) LUMORA_LOG(lumora::LOG_TRACE, __VA_ARGS__)
#define LUMORA_DETAIL(...) LUMORA_LOG(lumora::LOG_DETAIL, __VA_ARGS__)
#define LUMORA_STATE(...) LUMORA_LOG(lumora::LOG_STATE, __VA_ARGS__)
#define LUMORA_WARNING(...) LUMORA_LOG(lumora::LOG_WARNING, __VA_ARGS__)
#define LUMORA_ERROR(...) LUMORA_LOG(lumora::LOG_ERROR, __VA_ARGS__)
