// The keys of this node, from the file that LUMORA_LINK_PSK_FILE names.
#pragma once

#include <sys/stat.h>

#include <ctime>
#include <optional>
#include <string>
#include <string_view>
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
    std::size_t Size() const { return mKeys.size(); }

private:
    std::vector<Psk> mKeys;
};

class PskFile {
public:
    explicit PskFile(std::string path) : mPath(std::move(path)) {}

    // Nothing if the file is missing, if others than its owner may use it, or if it has another form than
    // key_file.h says. The log tells why.
    std::optional<KeyRing> Read(std::time_t now);
    // Whether the file is not the one that Read saw last, or a key has expired since.
    bool HasChanged(std::time_t now) const;

private:
    std::string mPath;
    struct stat mSeen = {};
    std::optional<std::time_t> mNextExpiry;
};

}  // namespace lumora_link
