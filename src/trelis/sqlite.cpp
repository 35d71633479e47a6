#include "trelis/sqlite.h"

#include <sys/stat.h>

#include <cstring>
#include <utility>

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

Connection OpenCopy(std::string_view file) {
    sqlite3* raw = nullptr;
    const int error =
        sqlite3_open_v2(":memory:", &raw, SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX, nullptr);
    Connection connection(raw);
    auto* const image = static_cast<unsigned char*>(sqlite3_malloc64(file.size()));
    if (error != SQLITE_OK || image == nullptr) {
        sqlite3_free(image);
        return nullptr;
    }
    std::memcpy(image, file.data(), file.size());
    const auto size = static_cast<sqlite3_int64>(file.size());
    // The image is SQLite's from here on, whatever comes of it.
    const int taken =
        sqlite3_deserialize(raw, "main", image, size, size,
                            SQLITE_DESERIALIZE_FREEONCLOSE | SQLITE_DESERIALIZE_RESIZEABLE);
    return taken == SQLITE_OK ? std::move(connection) : nullptr;
}

bool Execute(sqlite3* connection, const char* sql) {
    return sqlite3_exec(connection, sql, nullptr, nullptr, nullptr) == SQLITE_OK;
}

std::string ErrorText(sqlite3* connection) {
    if (connection == nullptr) return "out of memory";
    const int error = sqlite3_errcode(connection) & 0xFF;
    if (error == SQLITE_OK || error == SQLITE_ROW || error == SQLITE_DONE) return {};
    std::string text = sqlite3_errmsg(connection);
    const int system = sqlite3_system_errno(connection);
    const bool ofTheSystem = error == SQLITE_CANTOPEN || error == SQLITE_IOERR;
    if (ofTheSystem && system != 0) text += std::string(": ") + std::strerror(system);
    return text;
}

}  // namespace sqlite
