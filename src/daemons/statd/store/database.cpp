#include "daemons/statd/store/database.h"

#include <sys/stat.h>

#include <cstdio>

#include "daemons/statd/store/record.h"

namespace stats {
namespace {

constexpr std::int64_t kVersion = 1;

constexpr char kCounts[] =
    "CREATE TABLE IF NOT EXISTS hours(hour INTEGER NOT NULL, event INTEGER NOT NULL,"
    " count INTEGER NOT NULL, bytes INTEGER NOT NULL, PRIMARY KEY(hour, event)) WITHOUT ROWID;"
    "CREATE TABLE IF NOT EXISTS names(kind INTEGER NOT NULL, day INTEGER NOT NULL,"
    " name TEXT NOT NULL, event INTEGER NOT NULL, count INTEGER NOT NULL, bytes INTEGER NOT NULL,"
    " PRIMARY KEY(kind, day, name, event)) WITHOUT ROWID;"
    "CREATE TABLE IF NOT EXISTS state(name TEXT PRIMARY KEY NOT NULL, value INTEGER NOT NULL)"
    " WITHOUT ROWID;"
    "CREATE INDEX IF NOT EXISTS records_by_time ON records(received);"
    "CREATE INDEX IF NOT EXISTS records_by_event ON records(event_code, received);"
    "PRAGMA user_version = 1;";

std::string Schema() {
    std::string sql =
        "CREATE TABLE IF NOT EXISTS records(id INTEGER PRIMARY KEY, received INTEGER NOT NULL";
    for (const TextField& field : kTextFields) sql += std::string(", ") + field.column + " TEXT";
    for (const NumberField& field : kNumberFields)
        sql += std::string(", ") + field.column + " INTEGER";
    return sql + ");" + kCounts;
}

void MoveAside(const std::string& path) {
    for (const char* suffix : {"", "-wal", "-shm"}) {
        // What is not there needs no moving; what can't be moved fails the next open.
        static_cast<void>(
            std::rename((path + suffix).c_str(), (path + ".damaged" + suffix).c_str()));
    }
}

}  // namespace

std::unique_ptr<Database> Database::TryOpen(const std::string& path, int& error,
                                            std::string& note) {
    std::unique_ptr<Database> database(new Database(sqlite::Open(path, SQLITE_OPEN_CREATE, error)));
    sqlite3* const raw = database->connection_.get();
    if (error == SQLITE_OK) {
        chmod(path.c_str(), 0600);
        error = sqlite3_exec(raw, "PRAGMA journal_mode = WAL; PRAGMA synchronous = NORMAL;",
                             nullptr, nullptr, nullptr);
    }
    if (error == SQLITE_OK && database->Number("PRAGMA user_version", 0) > kVersion) {
        note = path + " was made by a newer version";
        error = SQLITE_MISMATCH;
    } else if (error == SQLITE_OK) {
        error = sqlite3_exec(raw, Schema().c_str(), nullptr, nullptr, nullptr);
    }
    if (error == SQLITE_OK) return database;
    if (note.empty()) note = path + ": " + (raw != nullptr ? sqlite3_errmsg(raw) : "no memory");
    return nullptr;
}

std::unique_ptr<Database> Database::Open(const std::string& path, std::string& note) {
    int error = SQLITE_OK;
    auto database = TryOpen(path, error, note);
    if (error != SQLITE_NOTADB && error != SQLITE_CORRUPT) return database;
    MoveAside(path);
    std::string again;
    database = TryOpen(path, error, again);
    note = database != nullptr ? note + "; moved to " + path + ".damaged, statistics begin anew"
                               : again;
    return database;
}

std::unique_ptr<Database> Database::OpenReader(const std::string& path) {
    // Not SQLITE_OPEN_READONLY: a reader of a WAL file takes part in its shared index.
    int error = SQLITE_OK;
    std::unique_ptr<Database> database(new Database(sqlite::Open(path, 0, error)));
    if (error != SQLITE_OK) return nullptr;
    return database->Execute("PRAGMA query_only = 1") ? std::move(database) : nullptr;
}

std::int64_t Database::Number(const std::string& sql, std::int64_t fallback) {
    Statement statement = Prepare(sql);
    return statement && statement.Row() ? statement.Number(0) : fallback;
}

Transaction::Transaction(Database& database, const char* begin)
    : database_(database), open_(database.Execute(begin)) {}

Transaction::~Transaction() {
    if (open_) database_.Execute("ROLLBACK");
}

bool Transaction::Commit() {
    if (!open_ || !database_.Execute("COMMIT")) return false;
    open_ = false;
    return true;
}

}  // namespace stats
