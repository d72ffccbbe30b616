#include "line_limit.h"

#include <utility>

namespace lumora_log {
namespace {

constexpr std::chrono::minutes PERIOD(1);
// Bounds the table. Programs have fewer places that log; only one that makes up names exceeds this. The
// counters then start again.
constexpr size_t MOST_PLACES = 2048;

}  // namespace

std::optional<std::uint64_t> LineLimit::Admit(const Place& place, TimePoint now) {
    if (mLimit == 0) {
        return 0;
    }
    const lumora::MutexLock lock(mMutex);
    if (mMinutes.size() >= MOST_PLACES && mMinutes.count(place) == 0) {
        mMinutes.clear();
    }
    const auto [at, isNew] = mMinutes.try_emplace(place);
    Minute& minute = at->second;
    if (isNew || now - minute.begin >= PERIOD) {
        minute.begin = now;
        minute.written = 0;
    }
    if (minute.written >= mLimit) {
        ++minute.leftOut;
        return std::nullopt;
    }
    ++minute.written;
    return std::exchange(minute.leftOut, 0);
}

}  // namespace lumora_log
