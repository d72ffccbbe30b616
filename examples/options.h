// Command-line parsing for both ends of the text-reading example.
#pragma once

#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <system_error>

namespace text_reader {

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

}  // namespace text_reader
