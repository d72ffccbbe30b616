// A recording while it is made.
#pragma once

#include <optional>
#include <string>
#include <unordered_map>

#include "tools/lumora/os/waiting.h"
#include "tools/lumora/recording/database.h"
#include "tools/lumora/recording/recording.h"
#include "tools/lumora/session/client_session.h"

namespace lumora_cli {

// Whatever fails is thrown as a Failure. After one, everything up to the last commit is in the file, and all
// further calls do nothing.
class RecordingWriter {
public:
    // Makes the file, which must not be there yet. Without Begin, the destructor removes it again.
    explicit RecordingWriter(const std::string& path);
    ~RecordingWriter();
    RecordingWriter(const RecordingWriter&) = delete;
    RecordingWriter& operator=(const RecordingWriter&) = delete;

    // The start is now.
    void Begin(Recording recording);
    void Write(const Block& block);
    // A connection has ended; the next block or EndGap ends the gap.
    void BeginGap(Deadline at);
    void EndGap(Deadline at);

    // When Commit has something to do; nothing if all is in the file.
    std::optional<Deadline> NextCommit() const;
    // Commits what is due. False if another program reads the file: call it again before more is written.
    bool Commit();
    // The last commit. lost: blocks that were dropped after the last one that was written.
    void End(unsigned lost);

    std::uint64_t Blocks() const { return mBlocks; }
    std::uint64_t Bytes() const { return mBytes; }
    std::uint64_t Lost() const { return mLost; }
    double Seconds() const;

private:
    struct Total {
        std::size_t service;
        bool changed = false;
    };

    template <typename Work>
    void Guard(const Work& work);
    void Abandon();
    void MakeTables();
    void AddServices();
    void Open();
    void AddGap(Micros begin, Micros end, const char* reason, std::uint64_t lost);
    void CloseGap(Micros end);
    void WriteTotals();
    void WriteEnd();
    Micros TimeOf(Deadline time) const;

    std::string mPath;
    std::optional<Database> mDatabase;
    std::optional<Statement> mInsert;
    std::optional<Statement> mUpdate;
    Recording mRecording;
    std::unordered_map<std::string, Total> mTotals;
    Deadline mStart;
    Micros mLast = 0;                     // the time of the last block, or the start
    Micros mCommitted = 0;                // the same, of the last commit
    std::optional<Deadline> mCommit;      // when the open transaction ends
    std::optional<std::int64_t> mGapRow;  // of the gap that goes on
    std::size_t mOpenBlocks = 0;          // of the open transaction
    std::size_t mOpenBytes = 0;
    std::uint64_t mBlocks = 0;
    std::uint64_t mBytes = 0;
    std::uint64_t mLost = 0;
    bool mDone = false;
};

}  // namespace lumora_cli
