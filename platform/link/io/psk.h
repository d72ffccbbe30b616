// The keys of this node, from the file that LUMORA_LINK_PSK_FILE names.
#pragma once

#include <sys/stat.h>

#include <ctime>
#include <optional>
#include <string>

#include "platform/link/wire/key_ring.h"

namespace lumora_link {

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
