// The form of a key file: who a node is, and which keys it takes.
//
//     # expires 2027-06-30
//     camera-17:5f0c...
//     lumora:8a41...
//
// One key per line, "identity:key", 1 to 64 bytes each. An identity stands in one line only. The first line
// is the node's own. A line "# expires YYYY-MM-DD" concerns the next key, which is valid until the end of
// that day (UTC). Other lines that begin with "# " and empty lines are passed over. A file of a single line
// is a key, whatever it begins with.
#pragma once

#include <ctime>
#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace lumora_link {

// What every TLS library takes.
constexpr std::size_t MAX_PSK_PART_BYTES = 64;
constexpr std::size_t MAX_KEYS = 4096;
constexpr std::size_t MAX_KEY_FILE_BYTES = 1U << 20;

struct Psk {
    std::string identity;
    std::string key;
    std::optional<std::time_t> expires;  // not valid from then on

    bool IsValidAt(std::time_t now) const { return !expires || now < *expires; }
};

struct KeyFileFault {
    unsigned line = 0;  // from 1
    std::string text;   // what is wrong with it, as the end of a sentence
};

// At least one key, in the order of the file; expired ones are among them.
std::variant<std::vector<Psk>, KeyFileFault> ParseKeyFile(const std::string& text);

// A day "YYYY-MM-DD" as the moment at which it ends (UTC).
std::optional<std::time_t> ParseLastDay(const std::string& text);

}  // namespace lumora_link
