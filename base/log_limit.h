// Keeps a log line that strangers or a lasting fault can cause from filling the log.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>

namespace lumora {

// Permits one line per minute and place. Any thread may ask.
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

}  // namespace lumora
