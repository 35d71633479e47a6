// store/: the records of the statistics and what is counted from them.
//
// This header: the database, one SQLite file, written by one connection, read by others at the same
// time (WAL).
//
//   records  a row a record, in the order of arrival
//   hours    counts and bytes by hour and event
//   names    counts and bytes by day, event and name, for each kind of name
//   state    numbers that the upkeep remembers
//
// Reports read hours and names, which grow with time and with the number of different names, not
// with the number of records. Counts and records are written in one transaction.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <utility>

#include "trelis/sqlite.h"

namespace stats {

// Kinds of names in the table names. The values are in the file.
enum class Kind : int { kPeer = 1, kSenderDomain = 2, kRecipientDomain = 3, kSignature = 4 };
inline constexpr Kind kKinds[] = {Kind::kPeer, Kind::kSenderDomain, Kind::kRecipientDomain,
                                  Kind::kSignature};

using sqlite::Statement;

// One connection. One thread at a time.
class Database {
  public:
    // Opens for writing; makes file (mode 0600) and tables where they are missing. A file that is
    // no database any more is moved aside (path.damaged) and begun anew; `note` says so. Null on
    // failure, and `note` says why.
    static std::unique_ptr<Database> Open(const std::string& path, std::string& note);
    // Opens an existing one for reading.
    static std::unique_ptr<Database> OpenReader(const std::string& path);

    Statement Prepare(const std::string& sql) { return {connection_.get(), sql.c_str()}; }
    bool Execute(const char* sql) { return sqlite::Execute(connection_.get(), sql); }
    // The first column of the first row, or the fallback.
    std::int64_t Number(const std::string& sql, std::int64_t fallback);
    std::string Error() const { return sqlite3_errmsg(connection_.get()); }

  private:
    explicit Database(sqlite::Connection connection) : connection_(std::move(connection)) {}
    static std::unique_ptr<Database> TryOpen(const std::string& path, int& error,
                                             std::string& note);
    sqlite::Connection connection_;
};

// A transaction: rolled back unless it was committed.
class Transaction {
  public:
    // kind: "BEGIN IMMEDIATE" to write, "BEGIN" for one view of all reads.
    Transaction(Database& database, const char* begin);
    Transaction(const Transaction&) = delete;
    Transaction& operator=(const Transaction&) = delete;
    ~Transaction();
    bool Good() const { return open_; }
    bool Commit();

  private:
    Database& database_;
    bool open_;
};

}  // namespace stats
