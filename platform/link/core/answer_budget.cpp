#include "platform/link/core/answer_budget.h"

#include <algorithm>

namespace lumora_link {

void AnswerBudget::Charge(in_addr_t host, std::size_t bytes) {
    const auto bucket = mBuckets.find(host);
    if (bucket != mBuckets.end()) {
        bucket->second.left -= static_cast<std::int64_t>(bytes);
    }
}

AnswerBudget::Bucket& AnswerBudget::BucketOf(in_addr_t host, TimePoint now) {
    if (mBuckets.size() >= MAX_HOSTS && mBuckets.count(host) == 0) {
        MakeRoom();
    }
    const auto [at, isNew] = mBuckets.try_emplace(host);
    Bucket& bucket = at->second;
    const std::int64_t elapsed =
        isNew ? 0 : std::chrono::duration_cast<Milliseconds>(now - bucket.filled).count();
    const std::int64_t gained = std::min(elapsed, std::int64_t{3600000}) * BYTES_PER_SECOND / 1000;
    // Short intervals add up: the time counts as used only when it has brought a byte.
    if (isNew || gained > 0) {
        bucket.filled = now;
    }
    bucket.left = std::min(BURST, bucket.left + gained);
    return bucket;
}

// The address that was idle longest has the fullest bucket and loses least.
void AnswerBudget::MakeRoom() {
    const auto idle = std::min_element(mBuckets.begin(), mBuckets.end(), [](const auto& a, const auto& b) {
        return a.second.filled < b.second.filled;
    });
    mBuckets.erase(idle);
}

}  // namespace lumora_link
