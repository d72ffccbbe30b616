// How the hub writes to the log.
#pragma once

#include "base/log_limit.h"
#include "library/log.h"

#define HUB_LOG(level, ...) LogInfo((level), "HUB", __func__, __LINE__, __VA_ARGS__)
// For what strangers can cause as often as they like.
#define HUB_LOG_LIMITED(level, ...)                          \
    do {                                                     \
        static lumora::LogLimit limit;                       \
        HUB_LOG(limit.Permits() ? (level) : 0, __VA_ARGS__); \
    } while (false)
