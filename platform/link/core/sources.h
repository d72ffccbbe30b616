// Which entries of a bounded table came from which address.
//
// Any host can fill a table. When it is full, the oldest entry of the address with the most entries makes
// room, so a flood from one address pushes out nothing but itself.
#pragma once

#include <netinet/in.h>

#include <cstddef>
#include <map>
#include <optional>
#include <set>
#include <utility>

namespace lumora_link {

// Keys are ordered by age: the smallest is the oldest.
template <typename Key>
class Sources {
public:
    void Add(in_addr_t host, const Key& key) {
        std::set<Key>& keys = mKeys[host];
        mCrowded.erase({keys.size(), host});
        keys.insert(key);
        mCrowded.insert({keys.size(), host});
    }
    void Remove(in_addr_t host, const Key& key) {
        const auto at = mKeys.find(host);
        if (at == mKeys.end()) {
            return;
        }
        mCrowded.erase({at->second.size(), host});
        at->second.erase(key);
        if (at->second.empty()) {
            mKeys.erase(at);
        } else {
            mCrowded.insert({at->second.size(), host});
        }
    }
    // The oldest entry of the address with the most; none if the table is empty.
    std::optional<Key> OldestOfMostCrowded() const {
        if (mCrowded.empty()) {
            return std::nullopt;
        }
        return *mKeys.at(mCrowded.rbegin()->second).begin();
    }

    std::size_t CountOf(in_addr_t host) const {
        const auto at = mKeys.find(host);
        return at == mKeys.end() ? 0 : at->second.size();
    }
    std::optional<Key> OldestOf(in_addr_t host) const {
        const auto at = mKeys.find(host);
        return at == mKeys.end() ? std::nullopt : std::make_optional(*at->second.begin());
    }

private:
    std::map<in_addr_t, std::set<Key>> mKeys;
    std::set<std::pair<std::size_t, in_addr_t>> mCrowded;  // number of entries, address
};

}  // namespace lumora_link
