// Writes to the log under the tag of this face.
#pragma once

#include "base/log_limit.h"
#include "link_log.h"

namespace lumora_hub {

constexpr int MQTT_STATE = 2;
constexpr int MQTT_WARNING = 3;
constexpr int MQTT_ERROR = 4;

}  // namespace lumora_hub

#define MQTT_LOG_LIMITED(level, ...)                          \
    do {                                                      \
        static lumora::LogLimit limit;                        \
        MQTT_LOG(limit.Permits() ? (level) : 0, __VA_ARGS__); \
    } while (false)
#define MQTT_LOG(level, ...) LogInfo((level), "MQTT", __func__, __LINE__, __VA_ARGS__)
