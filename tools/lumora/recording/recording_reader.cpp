#include "tools/lumora/recording/recording_reader.h"

#include <lumora.h>
#include <sys/stat.h>

#include <cerrno>
#include <fstream>

#include "tools/lumora/terminal/failure.h"

namespace lumora_cli {

namespace {

// Times beyond the year 9999 cannot be shown, and their distances could overflow.
constexpr Micros LATEST_TIME = 253'402'300'799'000'000;
constexpr int HIGHEST_TRANSPORT = 5;

// Opening a FIFO would wait for its writer, so this looks before SQLite opens anything.
std::string CheckedPath(const std::string& path) {
    struct stat status = {};
    if (stat(path.c_str(), &status) != 0) {
        throw Failure(EXIT_FILE, path + " cannot be read: " + SystemError(errno));
    }
    if (!S_ISREG(status.st_mode)) {
        throw Failure(EXIT_FILE, path + " is no regular file, so it is no recording");
    }
    return path;
}

// Checked before the statements are made, which need its tables.
Database Opened(const std::string& path) {
    Database database(CheckedPath(path), Database::Use::READ);
    if (database.NumberOf("PRAGMA application_id") != RECORDING_ID) {
        throw Failure(EXIT_FILE, path + " is no recording", "lumora record makes one");
    }
    if (database.NumberOf("PRAGMA user_version") != RECORDING_FORM) {
        throw Failure(EXIT_FILE, path + " was recorded by another version of lumora",
                      "read it with the version that made it");
    }
    // Views of these names could run for ever.
    if (database.NumberOf("SELECT count(*) FROM sqlite_master WHERE type = 'table' AND name IN "
                          "('device', 'services', 'blocks', 'gaps')") != 4) {
        throw Failure(EXIT_FILE, path + " cannot be read: tables of a recording are missing");
    }
    return database;
}

std::string Text(const Statement& statement, int column) { return std::string(statement.Bytes(column)); }

}  // namespace

bool RecordingReader::IsDatabase(const std::string& path) {
    constexpr std::string_view MAGIC("SQLite format 3\0", 16);
    struct stat status = {};
    if (stat(path.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) {
        return false;
    }
    char begin[MAGIC.size()] = {};
    std::ifstream(path, std::ios::binary).read(begin, sizeof(begin));
    return std::string_view(begin, sizeof(begin)) == MAGIC;
}

RecordingReader::RecordingReader(const std::string& path)
    : mDatabase(Opened(path)),
      mNext(mDatabase.Prepare("SELECT id, time, service FROM blocks WHERE id > ? ORDER BY id LIMIT 1")),
      mBytes(mDatabase.Prepare("SELECT bytes FROM blocks WHERE id = ?")) {
    ReadDevice();
    ReadServices();
}

void RecordingReader::ThrowDamaged() const {
    throw Failure(EXIT_FILE, mDatabase.Path() + " cannot be read: it is damaged");
}

Micros RecordingReader::TimeIn(const Statement& statement, int column) const {
    const Micros time = statement.Number(column);
    if (time < 0 || time > LATEST_TIME) {
        ThrowDamaged();
    }
    return time;
}

void RecordingReader::ReadDevice() {
    Statement read = mDatabase.Prepare("SELECT type, version, address, start, end FROM device LIMIT 1");
    if (!read.Step()) {
        ThrowDamaged();
    }
    mRecording.type = Text(read, 0);
    mRecording.version = Text(read, 1);
    mRecording.address = Text(read, 2);
    mRecording.start = TimeIn(read, 3);
    if (!read.IsNull(4)) {
        mRecording.end = TimeIn(read, 4);
    }
}

void RecordingReader::ReadServices() {
    Statement read = mDatabase.Prepare(
        "SELECT id, name, transport, output_bytes, recorded, blocks, bytes, first, last "
        "FROM services ORDER BY id LIMIT 9");
    while (read.Step()) {
        RecordedService service;
        service.id = read.Number(0);
        service.name = Text(read, 1);
        service.transport = static_cast<int>(read.Number(2));
        service.outputBytes = static_cast<unsigned>(read.Number(3));
        service.recorded = read.Number(4) != 0;
        service.blocks = static_cast<std::uint64_t>(read.Number(5));
        service.bytes = static_cast<std::uint64_t>(read.Number(6));
        for (const auto& [time, column] : {std::pair(&service.first, 7), std::pair(&service.last, 8)}) {
            if (!read.IsNull(column)) {
                *time = TimeIn(read, column);
            }
        }
        if (service.transport < 0 || service.transport > HIGHEST_TRANSPORT) {
            ThrowDamaged();
        }
        mRecording.services.push_back(std::move(service));
    }
    if (mRecording.services.size() > LUM_MAX_SERVICES) {
        ThrowDamaged();
    }
}

std::vector<Gap> RecordingReader::Gaps(std::size_t most) {
    Statement read =
        mDatabase.Prepare("SELECT begin, end, reason, lost FROM gaps ORDER BY begin, id LIMIT ?");
    read.Bind(1, static_cast<std::int64_t>(most));
    std::vector<Gap> gaps;
    while (read.Step()) {
        Gap gap;
        gap.begin = TimeIn(read, 0);
        if (!read.IsNull(1)) {
            gap.end = TimeIn(read, 1);
        }
        gap.reason = Text(read, 2);
        gap.lost = static_cast<std::uint64_t>(read.Number(3));
        gaps.push_back(std::move(gap));
    }
    return gaps;
}

std::optional<RecordingReader::Entry> RecordingReader::Next(std::int64_t id) {
    mBytes.Reset();
    mNext.Reset();
    if (!mNext.Bind(1, id).Step()) {
        mNext.Reset();
        return std::nullopt;
    }
    const Entry entry = {mNext.Number(0), TimeIn(mNext, 1), mNext.Number(2)};
    mNext.Reset();
    return entry;
}

// Times grow with the numbers, so a binary search finds it; a long recording needs no index for that.
std::int64_t RecordingReader::LastBefore(Micros time) {
    std::int64_t low = 0;  // before the time
    std::int64_t high =
        mDatabase.NumberOf("SELECT min(coalesce(max(id), 0), 9223372036854775806) FROM blocks") + 1;
    while (high - low > 1) {
        const std::int64_t middle = low + (high - low) / 2;
        const std::optional<Entry> entry = Next(middle - 1);
        if (entry && entry->time < time) {
            low = entry->id;
        } else {
            high = middle;
        }
    }
    return low;
}

std::string_view RecordingReader::BytesOf(const Entry& entry) {
    mBytes.Reset();
    if (!mBytes.Bind(1, entry.id).Step()) {
        ThrowDamaged();
    }
    return mBytes.Bytes(0);
}

}  // namespace lumora_cli
