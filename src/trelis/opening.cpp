#include "trelis/opening.h"

#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <optional>
#include <thread>

#include "platform/file.h"
#include "platform/home.h"
#include "trelis/history.h"

namespace trelis {
namespace {

constexpr int kTurnMilliseconds = 10;

// A key made only as a parent has no value. The rows of `changes` tell other processes what to look
// at; origin is the process that wrote them.
constexpr char kSchema[] =
    "CREATE TABLE IF NOT EXISTS keys(path TEXT PRIMARY KEY NOT NULL, parent TEXT NOT NULL, name "
    "TEXT NOT NULL,"
    " value TEXT) WITHOUT ROWID;"
    "CREATE INDEX IF NOT EXISTS children ON keys(parent, name);"
    "CREATE TABLE IF NOT EXISTS changes(id INTEGER PRIMARY KEY AUTOINCREMENT, origin INTEGER NOT "
    "NULL,"
    " path TEXT NOT NULL);";
constexpr char kLook[] = "SELECT count(*) FROM keys WHERE path = '/'";
// Bytes of the file's head that say how it is written, and what they are in the store's file and
// in one without a log.
constexpr std::size_t kModes[] = {18, 19};
constexpr char kLogged = 2;
constexpr char kPlain = 1;

// The change to a log of its own and the making of tables begin with a read, whose upgrade to a
// write SQLite refuses at once, without its own wait, where another process does the same.
bool ExecuteInTurn(sqlite3* database, const char* sql) {
    for (int waited = 0;; waited += kTurnMilliseconds) {
        const int result = sqlite3_exec(database, sql, nullptr, nullptr, nullptr);
        if ((result & 0xFF) != SQLITE_BUSY || waited >= sqlite::kBusyMilliseconds)
            return result == SQLITE_OK;
        std::this_thread::sleep_for(std::chrono::milliseconds(kTurnMilliseconds));
    }
}

bool MakeTables(sqlite3* database) {
    return ExecuteInTurn(database, kSchema) && ExecuteInTurn(database, kHistorySchema) &&
           ExecuteInTurn(database, kLook);
}

// Null on failure; error is SQLite's.
sqlite::Connection TryToOpen(int& error, std::string& why) {
    error = SQLITE_CANTOPEN;
    const std::string path = StorePath();
    if (path.empty()) return nullptr;
    sqlite::Connection database = sqlite::Open(path, SQLITE_OPEN_CREATE, error);
    if (error == SQLITE_OK &&
        ExecuteInTurn(database.get(), "PRAGMA journal_mode=WAL; PRAGMA synchronous=FULL;") &&
        MakeTables(database.get()))
        return database;
    why = sqlite::ErrorText(database.get());
    // SQLite only knows that the files beside it aren't there.
    if (access(platform::Home().c_str(), W_OK) != 0) why = std::strerror(errno);
    error = sqlite3_errcode(database.get()) & 0xFF;
    return nullptr;
}

bool IsMissingOrEmpty(const std::string& path) {
    const auto state = platform::LookAtFile(path);
    return !state || state->size == 0;
}

// What stands in the file, whole and with nothing that waits beside it. Nothing if that can't be
// had.
std::optional<std::string> ReadAlone(const std::string& path) {
    const auto alone = [&] {
        return IsMissingOrEmpty(path + "-wal") && IsMissingOrEmpty(path + "-journal");
    };
    platform::File file = platform::File::OpenRead(path.c_str());
    const auto before = file ? file.State() : std::nullopt;
    if (!before || !before->plain || !alone()) return std::nullopt;
    std::string text(before->size, '\0');
    for (std::size_t have = 0; have < text.size();) {
        const long long count = file.Read(text.data() + have, text.size() - have);
        if (count <= 0) return std::nullopt;
        have += static_cast<std::size_t>(count);
    }
    // A process that has come meanwhile has written here, or writes beside it.
    if (file.State() != before || !alone()) return std::nullopt;
    return text;
}

}  // namespace

std::string StorePath() { return platform::HomePath("store.db"); }

sqlite::Connection OpenDatabase(std::string& why) {
    int error = SQLITE_OK;
    return TryToOpen(error, why);
}

sqlite::Connection OpenToRead(std::string& why) {
    int error = SQLITE_OK;
    sqlite::Connection database = TryToOpen(error, why);
    const bool noRoom = error == SQLITE_FULL || error == SQLITE_IOERR || error == SQLITE_CANTOPEN ||
                        error == SQLITE_READONLY;
    if (database != nullptr || !noRoom) return database;
    auto text = ReadAlone(StorePath());
    if (!text || text->size() <= kModes[1]) return nullptr;
    for (const std::size_t each : kModes) {
        if ((*text)[each] == kLogged) (*text)[each] = kPlain;
    }
    database = sqlite::OpenCopy(*text);
    if (database == nullptr || !MakeTables(database.get()) ||
        !sqlite::Execute(database.get(), "PRAGMA query_only = ON"))
        return nullptr;
    return database;
}

}  // namespace trelis
