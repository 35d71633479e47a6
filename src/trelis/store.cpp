#include "trelis/store.h"

#include <sys/stat.h>

#include <chrono>
#include <random>
#include <thread>

#include "platform/home.h"

namespace trelis {
namespace {

constexpr int kBusyMilliseconds = 5000;
constexpr int kTurnMilliseconds = 10;
// How many changes are kept for the other processes to see.
constexpr int kChangesKept = 4096;

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

std::int64_t MakeOrigin() {
    std::random_device source;
    return static_cast<std::int64_t>((static_cast<std::uint64_t>(source()) << 31) ^ source());
}

void Bind(sqlite3_stmt* statement, int index, const std::string& text) {
    sqlite3_bind_text(statement, index, text.data(), static_cast<int>(text.size()),
                      SQLITE_TRANSIENT);
}

std::string Column(sqlite3_stmt* statement, int index) {
    const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(statement, index));
    return text == nullptr
               ? std::string()
               : std::string(text,
                             static_cast<std::size_t>(sqlite3_column_bytes(statement, index)));
}

// All keys below `key` are the paths from key + '/' up to, not including, key + '0', which follows
// '/'.
std::pair<std::string, std::string> Below(const std::string& key) {
    const std::string base = key == "/" ? "" : key;
    return {base + '/', base + '0'};
}

}  // namespace

bool ValidPath(const std::string& path, bool allowRoot) {
    if (path == "/") return allowRoot;
    return path.size() < kPathSize && path.size() > 1 && path.front() == '/' &&
           path.back() != '/' && path.find("//") == std::string::npos;
}

bool Concerns(const std::string& changed, const std::string& watched) {
    const std::string& shorter = changed.size() < watched.size() ? changed : watched;
    const std::string& longer = changed.size() < watched.size() ? watched : changed;
    return longer.compare(0, shorter.size(), shorter) == 0 &&
           (longer.size() == shorter.size() || longer[shorter.size()] == '/' || shorter == "/");
}

// The change to a log of its own and the making of tables begin with a read, whose upgrade to a
// write SQLite refuses at once, without its own wait, where another process does the same.
bool ExecuteInTurn(sqlite3* database, const char* sql) {
    for (int waited = 0;; waited += kTurnMilliseconds) {
        const int result = sqlite3_exec(database, sql, nullptr, nullptr, nullptr);
        if ((result & 0xFF) != SQLITE_BUSY || waited >= kBusyMilliseconds)
            return result == SQLITE_OK;
        std::this_thread::sleep_for(std::chrono::milliseconds(kTurnMilliseconds));
    }
}

Database OpenDatabase() {
    const std::string path = platform::HomePath("store.db");
    if (path.empty()) return nullptr;
    const mode_t before = umask(077);
    sqlite3* raw = nullptr;
    const int opened =
        sqlite3_open_v2(path.c_str(), &raw,
                        SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX, nullptr);
    Database database(raw);
    if (opened == SQLITE_OK) {
        sqlite3_busy_timeout(raw, kBusyMilliseconds);
        const bool ready =
            ExecuteInTurn(raw, "PRAGMA journal_mode=WAL; PRAGMA synchronous=FULL;") &&
            ExecuteInTurn(raw, kSchema);
        if (!ready) database.reset();
    } else {
        database.reset();
    }
    umask(before);
    return database;
}

std::unique_ptr<Store> Store::Open() {
    Database database = OpenDatabase();
    if (database == nullptr) return nullptr;
    std::unique_ptr<Store> store(new Store(std::move(database)));
    return store->get_ == nullptr ? nullptr : std::move(store);
}

Store::Store(Database database) : database_(std::move(database)), origin_(MakeOrigin()) {
    get_ = Prepare("SELECT value FROM keys WHERE path = ?");
}

bool Store::Execute(const char* sql) {
    return sqlite3_exec(database_.get(), sql, nullptr, nullptr, nullptr) == SQLITE_OK;
}

Statement Store::Prepare(const char* sql) {
    sqlite3_stmt* statement = nullptr;
    sqlite3_prepare_v2(database_.get(), sql, -1, &statement, nullptr);
    return Statement(statement);
}

std::optional<std::string> Store::Get(const std::string& key) {
    const std::lock_guard lock(mutex_);
    Bind(get_.get(), 1, key);
    std::optional<std::string> value;
    if (sqlite3_step(get_.get()) == SQLITE_ROW) value = Column(get_.get(), 0);
    sqlite3_reset(get_.get());
    return value;
}

bool Store::SetOne(const std::string& key, const std::string& value) {
    const Statement parent =
        Prepare("INSERT OR IGNORE INTO keys(path, parent, name) VALUES(?, ?, ?)");
    const Statement set = Prepare(
        "INSERT INTO keys(path, parent, name, value) VALUES(?, ?, ?, ?)"
        " ON CONFLICT(path) DO UPDATE SET value = excluded.value");
    if (parent == nullptr || set == nullptr) return false;
    for (std::size_t start = 0; start < key.size();) {
        const std::size_t end = std::min(key.find('/', start + 1), key.size());
        sqlite3_stmt* statement = end == key.size() ? set.get() : parent.get();
        Bind(statement, 1, key.substr(0, end));
        Bind(statement, 2, start == 0 ? "/" : key.substr(0, start));
        Bind(statement, 3, key.substr(start + 1, end - start - 1));
        if (statement == set.get()) Bind(statement, 4, value);
        if (sqlite3_step(statement) != SQLITE_DONE) return false;
        sqlite3_reset(statement);
        start = end;
    }
    return NoteChange(key);
}

bool Store::NoteChange(const std::string& key) {
    const Statement note = Prepare("INSERT INTO changes(origin, path) VALUES(?, ?)");
    if (note == nullptr) return false;
    sqlite3_bind_int64(note.get(), 1, origin_);
    Bind(note.get(), 2, key);
    if (sqlite3_step(note.get()) != SQLITE_DONE) return false;
    const std::int64_t id = sqlite3_last_insert_rowid(database_.get());
    if (id % 256 != 0) return true;
    return Execute(("DELETE FROM changes WHERE id < " + std::to_string(id - kChangesKept)).c_str());
}

bool Store::Commit(bool good) {
    if (good && Execute("COMMIT")) return true;
    Execute("ROLLBACK");
    return false;
}

bool Store::Set(const Pairs& values) {
    for (const auto& [key, value] : values) {
        if (!ValidPath(key, false)) return false;
    }
    const std::lock_guard lock(mutex_);
    if (!Execute("BEGIN IMMEDIATE")) return false;
    bool good = true;
    for (const auto& [key, value] : values) good = good && SetOne(key, value);
    return Commit(good);
}

bool Store::Delete(const std::string& key) {
    if (!ValidPath(key, false)) return false;
    const std::lock_guard lock(mutex_);
    if (!Execute("BEGIN IMMEDIATE")) return false;
    const Statement remove =
        Prepare("DELETE FROM keys WHERE path = ?1 OR (path >= ?2 AND path < ?3)");
    bool good = remove != nullptr;
    if (good) {
        const auto [from, to] = Below(key);
        Bind(remove.get(), 1, key);
        Bind(remove.get(), 2, from);
        Bind(remove.get(), 3, to);
        good = sqlite3_step(remove.get()) == SQLITE_DONE;
        if (good && sqlite3_changes(database_.get()) > 0) good = NoteChange(key);
    }
    return Commit(good);
}

std::optional<std::vector<std::string>> Store::Children(const std::string& key) {
    if (!ValidPath(key, true)) return std::nullopt;
    if (key != "/" && !Get(key)) return std::nullopt;
    const std::lock_guard lock(mutex_);
    const Statement list = Prepare("SELECT name FROM keys WHERE parent = ? ORDER BY name");
    if (list == nullptr) return std::nullopt;
    Bind(list.get(), 1, key);
    std::vector<std::string> names;
    while (sqlite3_step(list.get()) == SQLITE_ROW) names.push_back(Column(list.get(), 0));
    return names;
}

std::optional<Pairs> Store::Dump(const std::string& key) {
    if (!ValidPath(key, true)) return std::nullopt;
    if (key != "/" && !Get(key)) return std::nullopt;
    const std::lock_guard lock(mutex_);
    const Statement dump = Prepare(
        "SELECT path, value FROM keys WHERE value IS NOT NULL AND (path = ?1 OR (path >= ?2 AND "
        "path < ?3)) ORDER BY path");
    if (dump == nullptr) return std::nullopt;
    const auto [from, to] = Below(key);
    Bind(dump.get(), 1, key);
    Bind(dump.get(), 2, from);
    Bind(dump.get(), 3, to);
    Pairs pairs;
    while (sqlite3_step(dump.get()) == SQLITE_ROW)
        pairs.emplace_back(Column(dump.get(), 0), Column(dump.get(), 1));
    return pairs;
}

}  // namespace trelis
