// How many lines one place in the code may write: what a stranger can cause must not fill a disk.
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

    // Names are constants of the program, told apart by their address.
    struct Place {
        const char* tag;
        const char* function;
        int line;

        bool operator<(const Place& other) const {
            return std::tie(tag, function, line) < std::tie(other.tag, other.function, other.line);
        }
    };

    // A limit of 0 is none.
    explicit LineLimit(unsigned linesPerMinute) : mLimit(linesPerMinute) {}

    // Nothing where the line must be left out; else how many were left out since the last one.
    std::optional<std::uint64_t> Admit(const Place& place, TimePoint now);

    // Around a fork: the child must not find this locked by a thread that it does not have.
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
