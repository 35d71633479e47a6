#include "trelis/sqlite.h"

#include <sys/stat.h>

namespace sqlite {

Statement::Statement(sqlite3* connection, const char* sql) {
    sqlite3_stmt* statement = nullptr;
    sqlite3_prepare_v2(connection, sql, -1, &statement, nullptr);
    statement_.reset(statement);
}

void Statement::Bind(int index, std::int64_t number) {
    sqlite3_bind_int64(statement_.get(), index, number);
}

void Statement::Bind(int index, std::string_view text) {
    // An empty view may hold a null pointer, which SQLite would take for a missing value.
    const char* const data = text.data() == nullptr ? "" : text.data();
    sqlite3_bind_text(statement_.get(), index, data, static_cast<int>(text.size()),
                      SQLITE_TRANSIENT);
}

void Statement::BindNull(int index) { sqlite3_bind_null(statement_.get(), index); }

bool Statement::Row() {
    const int result = sqlite3_step(statement_.get());
    failed_ = result != SQLITE_ROW && result != SQLITE_DONE;
    return result == SQLITE_ROW;
}

bool Statement::Run() {
    const bool good = sqlite3_step(statement_.get()) == SQLITE_DONE;
    Reset();
    return good;
}

void Statement::Reset() { sqlite3_reset(statement_.get()); }

std::int64_t Statement::Number(int column) const {
    return sqlite3_column_int64(statement_.get(), column);
}

std::string Statement::Text(int column) const {
    const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(statement_.get(), column));
    if (text == nullptr) return {};
    return {text, static_cast<std::size_t>(sqlite3_column_bytes(statement_.get(), column))};
}

Connection Open(const std::string& path, int flags, int& error) {
    sqlite3* raw = nullptr;
    const mode_t before = umask(077);
    error = sqlite3_open_v2(path.c_str(), &raw, SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX | flags,
                            nullptr);
    umask(before);
    Connection connection(raw);
    if (error == SQLITE_OK) sqlite3_busy_timeout(raw, kBusyMilliseconds);
    return connection;
}

bool Execute(sqlite3* connection, const char* sql) {
    return sqlite3_exec(connection, sql, nullptr, nullptr, nullptr) == SQLITE_OK;
}

}  // namespace sqlite
