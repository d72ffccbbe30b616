// What has to hold for every input. A violation ends the program, which is how the fuzzer notices.
#pragma once

#include <cstdio>
#include <cstdlib>

namespace lumora_fuzz {

inline void Require(bool holds, const char* what) {
    if (!holds) {
        std::fprintf(stderr, "does not hold: %s\n", what);
        std::abort();
    }
}

}  // namespace lumora_fuzz
