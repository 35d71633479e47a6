// SQLite's handles, for the store and for whoever keeps a database of its own.
#pragma once

#include <sqlite3.h>

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace sqlite {

// A prepared statement. One thread at a time; its connection outlives it.
class Statement {
  public:
    Statement() = default;
    // Empty if the text can't be prepared.
    Statement(sqlite3* connection, const char* sql);
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
    // Ready for the next values; what it has read is let go of.
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

struct Close {
    void operator()(sqlite3* connection) const { sqlite3_close_v2(connection); }
};
using Connection = std::unique_ptr<sqlite3, Close>;

// Milliseconds that a statement waits for another process's write.
inline constexpr int kBusyMilliseconds = 5000;

// Opens a file to read and write, with SQLite's own locks off: one thread at a time. With
// SQLITE_OPEN_CREATE in flags it is made where it is missing, and like its journal readable for the
// process's user alone. error is SQLite's; the connection is null only for want of memory.
Connection Open(const std::string& path, int flags, int& error);
// A file's content as a database of its own, in memory. Null for want of memory.
Connection OpenCopy(std::string_view file);
bool Execute(sqlite3* connection, const char* sql);
// Why the last call on the connection has failed, for a person, with the system's reason where
// there is one. Empty if it has not.
std::string ErrorText(sqlite3* connection);

}  // namespace sqlite
