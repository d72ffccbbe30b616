// Writes to the device's log under this library's tag. Levels 0 and 1 are debug output, off by default.
#pragma once

#include "base/log_limit.h"
#include "link_log.h"

namespace lumora_link {

constexpr int LEVEL_TRACE = 0;
constexpr int LEVEL_DETAIL = 1;
constexpr int LEVEL_WARNING = 3;
constexpr int LEVEL_ERROR = 4;

}  // namespace lumora_link

#define LINK_LOG_LIMITED(level, ...)                          \
    do {                                                      \
        static lumora::LogLimit limit;                        \
        LINK_LOG(limit.Permits() ? (level) : 0, __VA_ARGS__); \
    } while (false)
#define LINK_LOG(level, ...) LogInfo((level), "LINK", __func__, __LINE__, __VA_ARGS__)
