// A recording that is there. Whatever fails is thrown as a Failure.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tools/lumora/recording/database.h"
#include "tools/lumora/recording/recording.h"

namespace lumora_cli {

// Between calls no lock is held on the file, so a recording that goes on can be read.
class RecordingReader {
public:
    struct Entry {
        std::int64_t id;
        Micros time;
        std::int64_t service;  // RecordedService::id
    };

    explicit RecordingReader(const std::string& path);

    // Whether the file begins as those of SQLite do. False for what cannot be read.
    static bool IsDatabase(const std::string& path);

    const Recording& About() const { return mRecording; }
    // The first ones, at most so many.
    std::vector<Gap> Gaps(std::size_t most);
    // The first block behind this one; 0 stands before all.
    std::optional<Entry> Next(std::int64_t id);
    // The last block before this time, for Next; 0 if there is none.
    std::int64_t LastBefore(Micros time);
    // Valid until the next call.
    std::string_view BytesOf(const Entry& entry);

private:
    void ReadDevice();
    void ReadServices();
    Micros TimeIn(const Statement& statement, int column) const;
    [[noreturn]] void ThrowDamaged() const;

    Database mDatabase;
    Recording mRecording;
    Statement mNext;
    Statement mBytes;
};

}  // namespace lumora_cli
