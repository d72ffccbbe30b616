// SQLite, as recordings use it. Whatever fails is thrown as a Failure with the file's name.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

struct sqlite3;
struct sqlite3_stmt;

namespace lumora_cli {

class Database;

// One line of SQL with its values. It must not outlive its database.
class Statement {
public:
    // Values are numbered from 1. Texts and bytes must stay valid until the next Reset.
    Statement& Bind(int at, std::int64_t number);
    Statement& BindText(int at, std::string_view text);
    Statement& BindBytes(int at, std::string_view bytes);

    // Whether there is a row.
    bool Step();
    // Runs a statement without rows, and resets it.
    void Run();
    // Ends the reading: without it, the file stays locked for a writer.
    void Reset();

    // Columns are numbered from 0. Views are valid until the next Step or Reset.
    std::int64_t Number(int column) const;
    bool IsNull(int column) const;
    std::string_view Bytes(int column) const;

private:
    friend class Database;
    struct Deleter {
        void operator()(sqlite3_stmt* statement) const;
    };

    explicit Statement(const Database& database) : mDatabase(&database) {}
    void Check(int result) const;

    [[maybe_unused]] const Database* mDatabase;  // unused in a build without SQLite
    std::unique_ptr<sqlite3_stmt, Deleter> mStatement;
};

class Database {
public:
    enum class Use { WRITE, READ };

    // The file exists. Throws a Failure if this program is built without SQLite.
    Database(std::string path, Use use);

    // Whether this program is built with SQLite.
    static bool IsThere();

    Statement Prepare(const char* sql) const;
    void Run(const char* sql) const { Prepare(sql).Run(); }
    // False if another program reads the file. The transaction stays open and can be tried again.
    bool TryCommit() const;
    // Gives up what was written since the last commit. Fails silently: nothing better is left to do then.
    void RollBack() const;
    std::int64_t LastRow() const;
    // The first value of the first row; 0 without a row.
    std::int64_t NumberOf(const char* sql) const;

    const std::string& Path() const { return mPath; }

private:
    friend class Statement;
    struct Deleter {
        void operator()(sqlite3* database) const;
    };

    [[noreturn]] void Fail(int result) const;

    std::string mPath;
    [[maybe_unused]] Use mUse;  // unused in a build without SQLite
    std::unique_ptr<sqlite3, Deleter> mHandle;
};

}  // namespace lumora_cli
