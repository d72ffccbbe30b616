// Which entries of a bounded table came from which address.
//
// Any host can fill a table. A table that asks this before it grows gives every address the same share, so
// that a flood from one address costs only that address its service.
#pragma once

#include <netinet/in.h>

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <utility>

namespace lumora_link {

class SourceQuota {
public:
    // The log names the table by `table`, a literal.
    SourceQuota(const char* table, std::size_t total, std::size_t perSource)
        : mTable(table), mTotal(total), mPerSource(perSource) {}

    void Enter(in_addr_t source);
    void Leave(in_addr_t source);
    std::size_t Entries() const { return mEntries; }
    std::size_t CountOf(in_addr_t source) const;

    // The address that has to give up an entry before `source` may have another one: `source` itself if it
    // has its share, the address with most entries if the table is full, nothing if there is room.
    std::optional<in_addr_t> WhoYields(in_addr_t source) const;
    // The address with most entries; `source` if no address has more than it.
    in_addr_t Largest(in_addr_t source) const;

    // How many entries the address with most of them has.
    std::size_t LargestCount() const { return mBySize.empty() ? 0 : mBySize.rbegin()->first; }

    // Counts an entry that was refused or dropped for the quota's sake, and logs it once a minute.
    void OnBite(in_addr_t source);
    std::size_t Bites() const { return mBites; }

private:
    void Move(in_addr_t source, std::size_t from, std::size_t to);

    const char* const mTable;
    const std::size_t mTotal;
    const std::size_t mPerSource;
    std::size_t mEntries = 0;
    std::size_t mBites = 0;
    std::map<in_addr_t, std::size_t> mCounts;
    std::set<std::pair<std::size_t, in_addr_t>> mBySize;
};

// The entries that a table may drop, oldest first for each source address.
template <typename Key>
class OldestFirst {
public:
    // The number by which the entry is removed again.
    std::uint64_t Add(in_addr_t source, const Key& key) {
        mKeys.emplace(std::make_pair(source, ++mLast), key);
        return mLast;
    }
    void Remove(in_addr_t source, std::uint64_t number) { mKeys.erase({source, number}); }
    // Null if the address has none.
    const Key* Oldest(in_addr_t source) const {
        const auto at = mKeys.lower_bound({source, 0});
        return at == mKeys.end() || at->first.first != source ? nullptr : &at->second;
    }

private:
    std::map<std::pair<in_addr_t, std::uint64_t>, Key> mKeys;
    std::uint64_t mLast = 0;
};

}  // namespace lumora_link
