#include "platform/link/core/source_quota.h"

#include "platform/link/log.h"
#include "platform/link/wire/types.h"

namespace lumora_link {

void SourceQuota::Enter(in_addr_t source) {
    const auto at = mCounts.find(source);
    if (at == mCounts.end()) {
        mBySize.emplace(1, source);
        mCounts.emplace(source, 1);
    } else {
        Move(source, at->second, at->second + 1);
        ++at->second;
    }
    ++mEntries;
}

void SourceQuota::Leave(in_addr_t source) {
    const auto at = mCounts.find(source);
    if (at == mCounts.end()) {
        return;  // memory was short when it entered
    }
    if (at->second == 1) {
        mBySize.erase({1, source});
        mCounts.erase(at);
    } else {
        Move(source, at->second, at->second - 1);
        --at->second;
    }
    --mEntries;
}

// Needs no memory, so that leaving cannot fail.
void SourceQuota::Move(in_addr_t source, std::size_t from, std::size_t to) {
    auto node = mBySize.extract({from, source});
    if (node) {
        node.value().first = to;
        mBySize.insert(std::move(node));
    }
}

std::optional<in_addr_t> SourceQuota::WhoYields(in_addr_t source) const {
    if (CountOf(source) >= mPerSource) {
        return source;
    }
    return mEntries >= mTotal ? std::make_optional(Largest(source)) : std::nullopt;
}

in_addr_t SourceQuota::Largest(in_addr_t source) const {
    const bool other = !mBySize.empty() && mBySize.rbegin()->first > CountOf(source);
    return other ? mBySize.rbegin()->second : source;
}

void SourceQuota::OnBite(in_addr_t source) {
    ++mBites;
    LINK_LOG_LIMITED(LEVEL_WARNING, "%s has more than its share of the %s: %zu refused or dropped so far\n",
                     HostText(source).c_str(), mTable, mBites);
}

std::size_t SourceQuota::CountOf(in_addr_t source) const {
    const auto at = mCounts.find(source);
    return at == mCounts.end() ? 0 : at->second;
}

}  // namespace lumora_link
