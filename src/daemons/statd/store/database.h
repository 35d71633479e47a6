// The statistics' database: one SQLite file, written by one connection, read by others at the same
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

#include <sqlite3.h>

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace stats {

// Kinds of names in the table names. The values are in the file.
enum class Kind : int { kPeer = 1, kSenderDomain = 2, kRecipientDomain = 3, kSignature = 4 };
inline constexpr Kind kKinds[] = {Kind::kPeer, Kind::kSenderDomain, Kind::kRecipientDomain,
                                  Kind::kSignature};

// A prepared statement. One thread at a time; its Database outlives it.
class Statement {
  public:
    Statement() = default;
    explicit Statement(sqlite3_stmt* statement) : statement_(statement) {}
    explicit operator bool() const { return statement_ != nullptr; }

    // Numbered from 1. Texts are copied.
    void Bind(int index, std::int64_t number);
    void Bind(int index, std::string_view text);
    void BindNull(int index);
    // True if there is a row to read; false at the end, and on a failure, which Failed tells.
    bool Row();
    bool Failed() const { return failed_; }
    // Runs a statement without rows and makes it ready for the next values. False on failure.
    bool Run();
    void Reset();
    std::int64_t Number(int column) const;
    std::string Text(int column) const;

  private:
    struct Finalize {
        void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
    };
    std::unique_ptr<sqlite3_stmt, Finalize> statement_;
    bool failed_ = false;
};

// One connection. One thread at a time.
class Database {
  public:
    // Opens for writing; makes file (mode 0600) and tables where they are missing. A file that is
    // no database any more is moved aside (path.damaged) and begun anew; `note` says so. Null on
    // failure, and `note` says why.
    static std::unique_ptr<Database> Open(const std::string& path, std::string& note);
    // Opens an existing one for reading.
    static std::unique_ptr<Database> OpenReader(const std::string& path);

    Statement Prepare(const std::string& sql);
    bool Execute(const char* sql);
    // The first column of the first row, or the fallback.
    std::int64_t Number(const std::string& sql, std::int64_t fallback);
    std::string Error() const { return sqlite3_errmsg(connection_.get()); }

  private:
    struct Close {
        void operator()(sqlite3* connection) const { sqlite3_close_v2(connection); }
    };
    explicit Database(sqlite3* connection) : connection_(connection) {}
    static std::unique_ptr<Database> TryOpen(const std::string& path, int& error,
                                             std::string& note);
    std::unique_ptr<sqlite3, Close> connection_;
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
