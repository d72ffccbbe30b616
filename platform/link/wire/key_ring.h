// The keys that a node accepts.
#pragma once

#include <string_view>
#include <utility>
#include <vector>

#include "platform/link/wire/key_file.h"

namespace lumora_link {

// Keys that have not expired. The first one is the node's own; each identity occurs once.
class KeyRing {
public:
    KeyRing() = default;
    explicit KeyRing(std::vector<Psk> keys) : mKeys(std::move(keys)) {}

    const Psk* Own() const { return mKeys.empty() ? nullptr : &mKeys.front(); }
    // Null if there is no such key.
    const Psk* Find(std::string_view identity) const;
    bool Has(std::string_view identity, std::string_view key) const;
    const std::vector<Psk>& All() const { return mKeys; }
    std::size_t Size() const { return mKeys.size(); }

private:
    std::vector<Psk> mKeys;
};

}  // namespace lumora_link
