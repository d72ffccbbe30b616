#include "tools/lumora/recording/recording_writer.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <utility>

#include "base/unique_fd.h"
#include "tools/lumora/terminal/failure.h"

namespace lumora_cli {

namespace {

// What a loss of power may cost. Each commit waits for the disk, so shorter times cost much more.
constexpr std::chrono::milliseconds COMMIT_INTERVAL(1000);
// Bounds the memory of a transaction while a program reads the file: SQLite can write pages only after it.
constexpr std::size_t MOST_OPEN_BYTES = std::size_t{32} * 1024 * 1024;

// An existing file is never written over: it may be a recording that cannot be made again.
void MakeFile(const std::string& path) {
    const lumora::UniqueFd file(open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666));
    if (!file && errno == EEXIST) {
        throw Failure(EXIT_FILE, path + " is there already", "remove it, or name another file");
    }
    if (!file) {
        throw Failure(EXIT_FILE, path + " cannot be made: " + SystemError(errno));
    }
}

}  // namespace

RecordingWriter::RecordingWriter(const std::string& path) : mPath(path) {
    // A write beyond a limit of the shell (ulimit -f) then fails instead of ending the process.
    std::signal(SIGXFSZ, SIG_IGN);
    MakeFile(path);
    try {
        mDatabase.emplace(path, Database::Use::WRITE);
    } catch (...) {
        unlink(path.c_str());
        throw;
    }
}

RecordingWriter::~RecordingWriter() {
    if (mRecording.start == 0) {
        mDatabase.reset();
        unlink(mPath.c_str());
    }
}

// After a failure nothing more is written: SQLite may have given up the transaction, and what follows would
// stand behind a hole of which the file does not tell.
template <typename Work>
void RecordingWriter::Guard(const Work& work) {
    if (mDone) {
        return;
    }
    try {
        work();
    } catch (const Failure& failure) {
        if (mRecording.start == 0) {
            throw;
        }
        Abandon();
        throw Failure(failure.Code(), failure.what(),
                      Count(mBlocks, "block is", "blocks are") + " in it, " + Grouped(mLost) + " not");
    }
}

void RecordingWriter::Abandon() {
    mDone = true;
    mInsert.reset();
    mUpdate.reset();
    mDatabase->RollBack();
    mBlocks -= mOpenBlocks;
    mBytes -= mOpenBytes;
    mLost += mOpenBlocks;
    try {
        // There may be room for this: the rollback has given back that of the blocks.
        mDatabase->Run("BEGIN IMMEDIATE");
        AddGap(mCommitted, TimeOf(Clock::now()), "not written", mOpenBlocks);
        WriteEnd();
        mDatabase->Run("COMMIT");
    } catch (const Failure&) {
        // The file then reads as one that was interrupted.
        mDatabase->RollBack();
    }
}

void RecordingWriter::MakeTables() {
    const char* const TABLES[] = {
        // Pages of this size suit pictures, and only the last ones of a file are written twice.
        "PRAGMA page_size = 8192",
        // A rollback journal and no write-ahead log: the file is whole without another one beside it, and can
        // be read on a full disk.
        "PRAGMA journal_mode = DELETE", "PRAGMA synchronous = FULL", "PRAGMA cache_size = -4096",
        "BEGIN IMMEDIATE",
        "CREATE TABLE device(type TEXT NOT NULL, version TEXT NOT NULL, address TEXT NOT NULL, "
        "start INTEGER NOT NULL, end INTEGER)",
        "CREATE TABLE services(id INTEGER PRIMARY KEY, name TEXT NOT NULL UNIQUE, transport INTEGER NOT "
        "NULL, "
        "output_bytes INTEGER NOT NULL, recorded INTEGER NOT NULL, blocks INTEGER NOT NULL DEFAULT 0, "
        "bytes INTEGER NOT NULL DEFAULT 0, first INTEGER, last INTEGER)",
        "CREATE TABLE blocks(id INTEGER PRIMARY KEY, time INTEGER NOT NULL, "
        "service INTEGER NOT NULL REFERENCES services(id), bytes BLOB NOT NULL)",
        "CREATE TABLE gaps(id INTEGER PRIMARY KEY, begin INTEGER NOT NULL, end INTEGER, "
        "reason TEXT NOT NULL, lost INTEGER NOT NULL)"};
    for (const char* const line : TABLES) {
        mDatabase->Run(line);
    }
    mDatabase->Run(("PRAGMA application_id = " + std::to_string(RECORDING_ID)).c_str());
    mDatabase->Run(("PRAGMA user_version = " + std::to_string(RECORDING_FORM)).c_str());
}

void RecordingWriter::AddServices() {
    Statement add = mDatabase->Prepare(
        "INSERT INTO services(name, transport, output_bytes, recorded) VALUES(?, ?, ?, ?)");
    for (std::size_t i = 0; i < mRecording.services.size(); ++i) {
        RecordedService& service = mRecording.services[i];
        add.BindText(1, service.name).Bind(2, service.transport).Bind(3, service.outputBytes);
        add.Bind(4, service.recorded ? 1 : 0).Run();
        service.id = mDatabase->LastRow();
        mTotals[service.name] = {i};
    }
}

void RecordingWriter::Begin(Recording recording) {
    Guard([&] {
        mRecording = std::move(recording);
        mStart = Clock::now();
        MakeTables();
        const Micros now = ToMicros(std::chrono::system_clock::now());
        Statement add = mDatabase->Prepare("INSERT INTO device VALUES(?, ?, ?, ?, NULL)");
        add.BindText(1, mRecording.type).BindText(2, mRecording.version).BindText(3, mRecording.address);
        add.Bind(4, now).Run();
        AddServices();
        mDatabase->Run("COMMIT");
        // Set last: a file whose tables could not be made is removed.
        mRecording.start = mLast = mCommitted = now;
        mInsert = mDatabase->Prepare("INSERT INTO blocks(time, service, bytes) VALUES(?, ?, ?)");
        mUpdate =
            mDatabase->Prepare("UPDATE services SET blocks = ?, bytes = ?, first = ?, last = ? WHERE id = ?");
    });
}

void RecordingWriter::Open() {
    if (!mCommit) {
        mDatabase->Run("BEGIN IMMEDIATE");
        mCommit = In(COMMIT_INTERVAL);
    }
}

// The start by the clock of the host, and from there on by one that is never set: distances stay true.
Micros RecordingWriter::TimeOf(Deadline time) const {
    return mRecording.start + std::chrono::duration_cast<std::chrono::microseconds>(time - mStart).count();
}

void RecordingWriter::Write(const Block& block) {
    Guard([&] {
        const auto found = mTotals.find(block.service);
        if (found == mTotals.end()) {
            return;  // the device has another service since it is back
        }
        Open();
        const Micros time = TimeOf(block.arrived);
        CloseGap(time);
        if (block.lostBefore != 0) {
            AddGap(mLast, time, "too slow", block.lostBefore);
            mLost += block.lostBefore;
        }
        // Counted first: if the insertion fails, this block is one of those that Abandon counts as lost.
        ++mBlocks;
        mBytes += block.data.size();
        ++mOpenBlocks;
        mOpenBytes += block.data.size();
        RecordedService& service = mRecording.services[found->second.service];
        mInsert->Bind(1, time).Bind(2, service.id).BindBytes(3, block.data).Run();
        found->second.changed = true;
        service.first = service.first.value_or(time);
        service.last = mLast = time;
        service.bytes += block.data.size();
        ++service.blocks;
        if (mOpenBytes >= MOST_OPEN_BYTES) {
            mCommit = Clock::now();
        }
    });
}

void RecordingWriter::BeginGap(Deadline at) {
    Guard([&] {
        Open();
        AddGap(TimeOf(at), -1, "disconnected", 0);
        mGapRow = mDatabase->LastRow();
    });
}

void RecordingWriter::EndGap(Deadline at) {
    Guard([&] { CloseGap(TimeOf(at)); });
}

// An end of -1 is stored as one that is not known.
void RecordingWriter::AddGap(Micros begin, Micros end, const char* reason, std::uint64_t lost) {
    Statement add =
        mDatabase->Prepare("INSERT INTO gaps(begin, end, reason, lost) VALUES(?, nullif(?, -1), ?, ?)");
    add.Bind(1, begin).Bind(2, end).BindText(3, reason).Bind(4, static_cast<std::int64_t>(lost)).Run();
}

void RecordingWriter::CloseGap(Micros end) {
    if (mGapRow) {
        Open();
        mDatabase->Prepare("UPDATE gaps SET end = ? WHERE id = ?").Bind(1, end).Bind(2, *mGapRow).Run();
        mGapRow.reset();
    }
}

std::optional<Deadline> RecordingWriter::NextCommit() const { return mDone ? std::nullopt : mCommit; }

void RecordingWriter::WriteTotals() {
    for (auto& [name, total] : mTotals) {
        if (total.changed) {
            const RecordedService& service = mRecording.services[total.service];
            mUpdate->Bind(1, static_cast<std::int64_t>(service.blocks));
            mUpdate->Bind(2, static_cast<std::int64_t>(service.bytes));
            mUpdate->Bind(3, *service.first).Bind(4, *service.last).Bind(5, service.id).Run();
            total.changed = false;
        }
    }
}

bool RecordingWriter::Commit() {
    bool done = true;
    Guard([&] {
        if (mCommit && Clock::now() >= *mCommit) {
            WriteTotals();
            done = mDatabase->TryCommit();
            if (done) {
                mCommit.reset();
                mCommitted = mLast;
                mOpenBlocks = mOpenBytes = 0;
            }
        }
    });
    return done;
}

void RecordingWriter::WriteEnd() {
    mDatabase->Prepare("UPDATE device SET end = ?").Bind(1, TimeOf(Clock::now())).Run();
}

void RecordingWriter::End(unsigned lost) {
    if (mRecording.start == 0) {
        return;
    }
    Guard([&] {
        Open();
        if (lost != 0) {
            AddGap(mLast, TimeOf(Clock::now()), "too slow", lost);
            mLost += lost;
        }
        CloseGap(TimeOf(Clock::now()));
        WriteTotals();
        WriteEnd();
        mDatabase->Run("COMMIT");
        mOpenBlocks = mOpenBytes = 0;
        mDone = true;
    });
}

double RecordingWriter::Seconds() const {
    return std::chrono::duration<double>(Clock::now() - mStart).count();
}

}  // namespace lumora_cli
