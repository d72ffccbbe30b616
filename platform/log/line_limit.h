// Limits the lines that one place in the code may write: requests of a stranger must not fill a disk.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <tuple>

#include "base/mutex.h"

namespace lumora_log {

class LineLimit {
public:
    using TimePoint = std::chrono::steady_clock::time_point;

    // Names are string literals of the program, so their addresses identify them.
    struct Place {
        const char* tag;
        const char* function;
        int line;

        bool operator<(const Place& other) const {
            return std::tie(tag, function, line) < std::tie(other.tag, other.function, other.line);
        }
    };

    // 0: no limit.
    explicit LineLimit(unsigned linesPerMinute) : mLimit(linesPerMinute) {}

    // Nothing if the line must be suppressed. Otherwise the number of lines suppressed since the last one.
    std::optional<std::uint64_t> Admit(const Place& place, TimePoint now);

    // Around a fork: see LockLog in link_log.cpp.
    void Lock() ACQUIRE(mMutex) { mMutex.lock(); }
    void Unlock() RELEASE(mMutex) { mMutex.unlock(); }

private:
    struct Minute {
        TimePoint begin;
        unsigned written = 0;
        std::uint64_t leftOut = 0;
    };

    const unsigned mLimit;
    lumora::Mutex mMutex;
    std::map<Place, Minute> mMinutes GUARDED_BY(mMutex);
};

}  // namespace lumora_log
