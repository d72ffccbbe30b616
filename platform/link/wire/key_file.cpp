#include "platform/link/wire/key_file.h"

#include <set>
#include <sstream>
#include <utility>

namespace lumora_link {

namespace {

constexpr char COMMENT[] = "# ";
constexpr char EXPIRES[] = "# expires ";

bool BeginsWith(const std::string& text, const std::string& prefix) {
    return text.compare(0, prefix.size(), prefix) == 0;
}

bool IsPartOfKey(const std::string& text) { return !text.empty() && text.size() <= MAX_PSK_PART_BYTES; }

// Without the line ends; a last line end begins no further line.
std::vector<std::string> LinesOf(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
    }
    return lines;
}

std::optional<Psk> ParseKeyLine(const std::string& line) {
    const std::size_t colon = line.find(':');
    if (colon == std::string::npos) {
        return std::nullopt;
    }
    Psk psk{line.substr(0, colon), line.substr(colon + 1), std::nullopt};
    // libcoap and OpenSSL end texts at a NUL.
    const bool valid =
        IsPartOfKey(psk.identity) && IsPartOfKey(psk.key) && line.find('\0') == std::string::npos;
    return valid ? std::make_optional(std::move(psk)) : std::nullopt;
}

bool IsDigits(const std::string& text) { return text.find_first_not_of("0123456789") == std::string::npos; }

}  // namespace

std::optional<std::time_t> ParseLastDay(const std::string& text) {
    if (text.size() != 10 || text[4] != '-' || text[7] != '-' ||
        !IsDigits(text.substr(0, 4) + text.substr(5, 2) + text.substr(8, 2))) {
        return std::nullopt;
    }
    const int year = std::stoi(text.substr(0, 4));
    const int month = std::stoi(text.substr(5, 2));
    const int day = std::stoi(text.substr(8, 2));
    std::tm date = {};
    date.tm_year = year - 1900;
    date.tm_mon = month - 1;
    date.tm_mday = day;
    const std::time_t begins = timegm(&date);
    // timegm takes the 31st of February for a day in March.
    if (year < 1970 || date.tm_mon != month - 1 || date.tm_mday != day) {
        return std::nullopt;
    }
    constexpr std::time_t DAY = std::time_t{24} * 60 * 60;
    return begins + DAY;
}

std::variant<std::vector<Psk>, KeyFileFault> ParseKeyFile(const std::string& text) {
    const std::vector<std::string> lines = LinesOf(text);
    std::vector<Psk> keys;
    std::set<std::string> identities;
    std::optional<std::time_t> expires;
    unsigned number = 0;
    for (const std::string& line : lines) {
        ++number;
        if (lines.size() > 1 && BeginsWith(line, EXPIRES)) {
            expires = ParseLastDay(line.substr(sizeof EXPIRES - 1));
            if (!expires) {
                return KeyFileFault{number, "is not \"# expires YYYY-MM-DD\""};
            }
            continue;
        }
        if (lines.size() > 1 && (line.empty() || BeginsWith(line, COMMENT))) {
            continue;
        }
        auto psk = ParseKeyLine(line);
        if (!psk) {
            return KeyFileFault{number, "is not identity:key, 1 to 64 bytes each"};
        }
        if (!identities.insert(psk->identity).second) {
            return KeyFileFault{number, "has the identity of another line"};
        }
        if (keys.size() == MAX_KEYS) {
            return KeyFileFault{number, "is one key too many; a file has 4,096 at most"};
        }
        psk->expires = std::exchange(expires, std::nullopt);
        keys.push_back(std::move(*psk));
    }
    if (keys.empty()) {
        return KeyFileFault{1, "is not there: the file has no key"};
    }
    return keys;
}

}  // namespace lumora_link
