// What stands in the place of database.cpp in a build without SQLite: the first use says so.
#include <utility>

#include "tools/lumora/recording/database.h"
#include "tools/lumora/terminal/failure.h"

namespace lumora_cli {

// Without SQLite no database can be made, so the other functions are never reached.
void Database::Deleter::operator()(sqlite3*) const {}
void Statement::Deleter::operator()(sqlite3_stmt*) const {}
Database::Database(std::string path, Use use) : mPath(std::move(path)), mUse(use) { Fail(0); }
bool Database::IsThere() { return false; }
void Database::Fail(int) const {
    throw Failure(EXIT_FAILED, "this lumora was built without SQLite, so it has no recordings",
                  "build it again where libsqlite3-dev is installed");
}
Statement Database::Prepare(const char*) const { Fail(0); }
bool Database::TryCommit() const { Fail(0); }
void Database::RollBack() const {}
std::int64_t Database::LastRow() const { return 0; }
std::int64_t Database::NumberOf(const char*) const { return 0; }
void Statement::Check(int) const {}
Statement& Statement::Bind(int, std::int64_t) { return *this; }
Statement& Statement::BindText(int, std::string_view) { return *this; }
Statement& Statement::BindBytes(int, std::string_view) { return *this; }
bool Statement::Step() { return false; }
void Statement::Run() {}
void Statement::Reset() {}
std::int64_t Statement::Number(int) const { return 0; }
bool Statement::IsNull(int) const { return true; }
std::string_view Statement::Bytes(int) const { return {}; }

}  // namespace lumora_cli
