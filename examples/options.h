// Command-line parsing of the examples that have options.
#pragma once

#include <lumora.h>
#include <unistd.h>

#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <system_error>

namespace examples {

inline constexpr int USAGE_ERROR = 2;

// Returns a number within bounds. Otherwise prints a message and ends the program.
inline int NumberOption(const char* option, const char* text, int least, int most) {
    int value = 0;
    const char* const end = text + std::strlen(text);
    const auto [rest, error] = std::from_chars(text, end, value);
    if (error != std::errc() || rest != end || value < least || value > most) {
        std::fprintf(stderr, "%s takes a number from %d to %d, not \"%s\"; see --help\n", option, least, most,
                     text);
        std::exit(USAGE_ERROR);
    }
    return value;
}

// Returns a device type. Otherwise prints a message and ends the program.
inline std::string TypeOption(const std::string& type) {
    if (type.empty() || type.size() >= LUM_NAME_SIZE) {
        std::fprintf(stderr, "--type takes 1 to %d characters; see --help\n", LUM_NAME_SIZE - 1);
        std::exit(USAGE_ERROR);
    }
    return type;
}

// After getopt: ends the program with a message if words are left that belong to no option.
inline void RefuseOtherWords(int count, char* const* arguments) {
    if (optind != count) {
        std::fprintf(stderr, "unexpected \"%s\"; see --help\n", arguments[optind]);
        std::exit(USAGE_ERROR);
    }
}

}  // namespace examples
