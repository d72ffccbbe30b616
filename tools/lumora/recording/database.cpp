#include "tools/lumora/recording/database.h"

#include <sqlite3.h>

#include <new>
#include <utility>

#include "tools/lumora/terminal/failure.h"

namespace lumora_cli {

namespace {

// How long SQLite waits for a program that reads the file at the same time.
constexpr int LOCK_PATIENCE_MS = 5000;
// More than the longest block. A damaged file may name a length that no memory has.
constexpr int LONGEST_VALUE = 16 * 1024 * 1024;

// What is wrong, for the end of a sentence.
std::string FaultOf(sqlite3* handle, int result) {
    const int systemError = sqlite3_system_errno(handle);
    switch (result & 0xFF) {
        case SQLITE_FULL:
            return "the disk is full";
        case SQLITE_BUSY:
        case SQLITE_LOCKED:
            return "another program has locked it";
        case SQLITE_CORRUPT:
            return "it is damaged";
        case SQLITE_NOTADB:
            return "it is no SQLite database";
        case SQLITE_IOERR:
        case SQLITE_CANTOPEN:
            return systemError != 0 ? SystemError(systemError) : sqlite3_errstr(result);
        default:
            return sqlite3_errstr(result);
    }
}

}  // namespace

void Database::Deleter::operator()(sqlite3* database) const { sqlite3_close_v2(database); }
void Statement::Deleter::operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }

Database::Database(std::string path, Use use) : mPath(std::move(path)), mUse(use) {
    sqlite3* handle = nullptr;
    // Also for reading: only a connection that may write can undo what an interrupted recording left half
    // done. SQLite opens the file for reading if it may not be written.
    const int result = sqlite3_open_v2(mPath.c_str(), &handle, SQLITE_OPEN_READWRITE, nullptr);
    // SQLite allocates a handle for a failed open too, and it must be closed.
    mHandle.reset(handle);
    if (result != SQLITE_OK) {
        Fail(result);
    }
    sqlite3_extended_result_codes(handle, 1);
    sqlite3_busy_timeout(handle, LOCK_PATIENCE_MS);
    sqlite3_limit(handle, SQLITE_LIMIT_LENGTH, LONGEST_VALUE);
    // The file may come from a stranger. Its schema must not call functions, and SQL must not write into
    // SQLite's own tables.
    sqlite3_db_config(handle, SQLITE_DBCONFIG_DEFENSIVE, 1, nullptr);
    sqlite3_db_config(handle, SQLITE_DBCONFIG_TRUSTED_SCHEMA, 0, nullptr);
}

bool Database::IsThere() { return true; }

void Database::Fail(int result) const {
    const char* const what = mUse == Use::WRITE ? " cannot be written: " : " cannot be read: ";
    throw Failure(EXIT_FILE, mPath + what + FaultOf(mHandle.get(), result));
}

Statement Database::Prepare(const char* sql) const {
    sqlite3_stmt* statement = nullptr;
    const int result = sqlite3_prepare_v2(mHandle.get(), sql, -1, &statement, nullptr);
    Statement prepared(*this);
    prepared.mStatement.reset(statement);
    prepared.Check(result);
    return prepared;
}

bool Database::TryCommit() const {
    const int result = sqlite3_exec(mHandle.get(), "COMMIT", nullptr, nullptr, nullptr);
    if ((result & 0xFF) != SQLITE_BUSY && result != SQLITE_OK) {
        Fail(result);
    }
    return result == SQLITE_OK;
}

void Database::RollBack() const {
    // SQLite has already rolled back after some errors, such as a full disk.
    if (sqlite3_get_autocommit(mHandle.get()) == 0) {
        sqlite3_exec(mHandle.get(), "ROLLBACK", nullptr, nullptr, nullptr);
    }
}

std::int64_t Database::LastRow() const { return sqlite3_last_insert_rowid(mHandle.get()); }

std::int64_t Database::NumberOf(const char* sql) const {
    Statement statement = Prepare(sql);
    return statement.Step() ? statement.Number(0) : 0;
}

void Statement::Check(int result) const {
    if (result != SQLITE_OK) {
        mDatabase->Fail(result);
    }
}

Statement& Statement::Bind(int at, std::int64_t number) {
    Check(sqlite3_bind_int64(mStatement.get(), at, number));
    return *this;
}

// A null destructor: SQLite keeps no copy.
Statement& Statement::BindText(int at, std::string_view text) {
    Check(sqlite3_bind_text64(mStatement.get(), at, text.data(), text.size(), nullptr, SQLITE_UTF8));
    return *this;
}

Statement& Statement::BindBytes(int at, std::string_view bytes) {
    Check(sqlite3_bind_blob64(mStatement.get(), at, bytes.data(), bytes.size(), nullptr));
    return *this;
}

bool Statement::Step() {
    const int result = sqlite3_step(mStatement.get());
    if (result != SQLITE_ROW && result != SQLITE_DONE) {
        mDatabase->Fail(result);
    }
    return result == SQLITE_ROW;
}

void Statement::Run() {
    Step();
    Reset();
}

void Statement::Reset() { sqlite3_reset(mStatement.get()); }

std::int64_t Statement::Number(int column) const { return sqlite3_column_int64(mStatement.get(), column); }

bool Statement::IsNull(int column) const {
    return sqlite3_column_type(mStatement.get(), column) == SQLITE_NULL;
}

std::string_view Statement::Bytes(int column) const {
    const void* const bytes = sqlite3_column_blob(mStatement.get(), column);
    const int length = sqlite3_column_bytes(mStatement.get(), column);
    // Without memory SQLite gives no bytes, and an empty value must not stand for them.
    if (bytes == nullptr && length == 0 && sqlite3_errcode(mDatabase->mHandle.get()) == SQLITE_NOMEM) {
        throw std::bad_alloc();
    }
    return {static_cast<const char*>(bytes), bytes != nullptr ? static_cast<std::size_t>(length) : 0};
}

}  // namespace lumora_cli
