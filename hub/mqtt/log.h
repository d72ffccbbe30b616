// Writes to the log under the tag of this face.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>

#include "link_log.h"

namespace lumora_hub {

constexpr int MQTT_STATE = 2;
constexpr int MQTT_WARNING = 3;
constexpr int MQTT_ERROR = 4;

// Permits one line per minute and place, so that what strangers do does not fill the log. Any thread may ask.
class LogLimit {
public:
    bool Permits() {
        const auto now = std::chrono::duration_cast<std::chrono::seconds>(
                             std::chrono::steady_clock::now().time_since_epoch())
                             .count();
        auto next = mNext.load(std::memory_order_relaxed);
        return now >= next && mNext.compare_exchange_strong(next, now + SECONDS, std::memory_order_relaxed);
    }

private:
    static constexpr std::int64_t SECONDS = 60;
    std::atomic<std::int64_t> mNext{0};
};

}  // namespace lumora_hub

#define MQTT_LOG_LIMITED(level, ...)                          \
    do {                                                      \
        static lumora_hub::LogLimit limit;                    \
        MQTT_LOG(limit.Permits() ? (level) : 0, __VA_ARGS__); \
    } while (false)
#define MQTT_LOG(level, ...) LogInfo((level), "MQTT", __func__, __LINE__, __VA_ARGS__)
