// Writes to the device's log under this library's tag. Levels 0 and 1 are debug output, off by default.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>

#include "link_log.h"

namespace lumora_link {

constexpr int LEVEL_TRACE = 0;
constexpr int LEVEL_DETAIL = 1;
constexpr int LEVEL_WARNING = 3;
constexpr int LEVEL_ERROR = 4;

// Permits one line per minute and place, so that a repeated fault does not fill the log. Any thread may ask.
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

}  // namespace lumora_link

#define LINK_LOG_LIMITED(level, ...)                          \
    do {                                                      \
        static lumora_link::LogLimit limit;                   \
        LINK_LOG(limit.Permits() ? (level) : 0, __VA_ARGS__); \
    } while (false)
#define LINK_LOG(level, ...) LogInfo((level), "LINK", __func__, __LINE__, __VA_ARGS__)
