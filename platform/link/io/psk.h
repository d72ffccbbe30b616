// The key that the nodes of one installation share.
#pragma once

#include <optional>
#include <string>

namespace lumora_link {

struct Psk {
    std::string identity;
    std::string key;
};

// One line, "identity:key", in a file that only its owner may read or write. Nothing where it is not
// that; the log tells why.
std::optional<Psk> ReadPskFile(const std::string& path);

}  // namespace lumora_link
