// What a recording holds. docs/recordings.md describes the tables of the file.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tools/lumora/terminal/text.h"

namespace lumora_cli {

// Microseconds since 1970, UTC.
using Micros = std::int64_t;

inline Micros ToMicros(WallTime time) {
    return std::chrono::duration_cast<std::chrono::microseconds>(time.time_since_epoch()).count();
}
inline WallTime FromMicros(Micros time) {
    return WallTime(std::chrono::duration_cast<WallTime::duration>(std::chrono::microseconds(time)));
}

struct RecordedService {
    std::int64_t id = 0;
    std::string name;
    int transport = 0;
    unsigned outputBytes = 0;
    bool recorded = false;  // false: the device has it, but its blocks were not recorded
    std::uint64_t blocks = 0;
    std::uint64_t bytes = 0;
    std::optional<Micros> first;  // the times of its first and last block
    std::optional<Micros> last;
};

// A time in which blocks are missing.
struct Gap {
    Micros begin = 0;
    std::optional<Micros> end;  // empty: up to the end of the recording
    std::string reason;         // "disconnected", "too slow" or "not written"
    std::uint64_t lost = 0;     // blocks; 0 if the number is not known
};

struct Recording {
    std::string type;
    std::string version;  // of the device's library
    std::string address;
    Micros start = 0;
    std::optional<Micros> end;  // empty: it still goes on, or was interrupted
    std::vector<RecordedService> services;
};

// The numbers by which files are told from other databases, and forms from later ones.
constexpr std::int64_t RECORDING_ID = 0x4C554D52;
constexpr std::int64_t RECORDING_FORM = 1;

}  // namespace lumora_cli
