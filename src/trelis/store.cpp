#include "trelis/store.h"

#include <random>

namespace trelis {
namespace {

// How many changes are kept for the other processes to see.
constexpr int kChangesKept = 4096;

std::int64_t MakeOrigin() {
    std::random_device source;
    return static_cast<std::int64_t>((static_cast<std::uint64_t>(source()) << 31) ^ source());
}

// ?1 is the key, ?2 and ?3 bound those below it: the paths from key + '/' up to, not including,
// key + '0', which follows '/'.
void BindKeyAndBelow(sqlite::Statement& statement, const std::string& key) {
    const std::string base = key == "/" ? "" : key;
    statement.Bind(1, key);
    statement.Bind(2, base + '/');
    statement.Bind(3, base + '0');
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

std::unique_ptr<Store> Store::Make(sqlite::Connection database, std::string& why) {
    if (database == nullptr) return nullptr;
    std::unique_ptr<Store> store(new Store(std::move(database)));
    if (store->get_) return store;
    why = sqlite::ErrorText(store->database_.get());
    return nullptr;
}

Store::Store(sqlite::Connection database) : database_(std::move(database)), origin_(MakeOrigin()) {
    get_ = Prepare("SELECT value FROM keys WHERE path = ?");
}

std::optional<std::string> Store::Get(const std::string& key) {
    const std::lock_guard lock(mutex_);
    get_.Bind(1, key);
    std::optional<std::string> value;
    if (get_.Row()) value = get_.Text(0);
    get_.Reset();
    return value;
}

bool Store::Begin(std::int64_t undoes) {
    history_.Begin(undoes);
    failure_.clear();
    if (Execute("BEGIN IMMEDIATE")) return true;
    failure_ = sqlite::ErrorText(database_.get());
    return false;
}

// Unlike Get it knows a key without a value from one with an empty one.
std::optional<std::string> Store::Value(const std::string& key) {
    sqlite::Statement get = Prepare("SELECT value FROM keys WHERE path = ? AND value IS NOT NULL");
    if (!get) return std::nullopt;
    get.Bind(1, key);
    return get.Row() ? std::optional(get.Text(0)) : std::nullopt;
}

bool Store::SetOne(const std::string& key, const std::string& value) {
    if (!history_.Note(database_.get(), {key, Value(key), value})) return false;
    sqlite::Statement parent =
        Prepare("INSERT OR IGNORE INTO keys(path, parent, name) VALUES(?, ?, ?)");
    sqlite::Statement set = Prepare(
        "INSERT INTO keys(path, parent, name, value) VALUES(?, ?, ?, ?)"
        " ON CONFLICT(path) DO UPDATE SET value = excluded.value");
    if (!parent || !set) return false;
    for (std::size_t start = 0; start < key.size();) {
        const std::size_t end = std::min(key.find('/', start + 1), key.size());
        const bool last = end == key.size();
        sqlite::Statement& statement = last ? set : parent;
        statement.Bind(1, key.substr(0, end));
        statement.Bind(2, start == 0 ? "/" : key.substr(0, start));
        statement.Bind(3, key.substr(start + 1, end - start - 1));
        if (last) statement.Bind(4, value);
        if (!statement.Run()) return false;
        start = end;
    }
    return NoteChange(key);
}

// The key and those above it, as far as each has neither a value nor a key below: an interface
// without keys would listen.
bool Store::Prune(std::string path) {
    sqlite::Statement prune = Prepare(
        "DELETE FROM keys WHERE path = ?1 AND value IS NULL AND NOT EXISTS"
        " (SELECT 1 FROM keys WHERE parent = ?1)");
    if (!prune) return false;
    for (; !path.empty(); path.resize(path.rfind('/'))) {
        prune.Bind(1, path);
        if (!prune.Run()) return false;
        if (sqlite3_changes(database_.get()) == 0) break;
    }
    return true;
}

bool Store::TakeValue(const std::string& key) {
    if (!history_.Note(database_.get(), {key, Value(key), std::nullopt})) return false;
    sqlite::Statement take = Prepare("UPDATE keys SET value = NULL WHERE path = ?");
    if (!take) return false;
    take.Bind(1, key);
    return take.Run() && Prune(key) && NoteChange(key);
}

bool Store::NoteDeleted(const std::string& key) {
    sqlite::Statement rows = Prepare(
        "SELECT path, value FROM keys WHERE value IS NOT NULL AND (path = ?1 OR (path >= ?2 AND "
        "path < ?3))");
    if (!rows) return false;
    BindKeyAndBelow(rows, key);
    while (rows.Row()) {
        if (!history_.Note(database_.get(), {rows.Text(0), rows.Text(1), std::nullopt}))
            return false;
    }
    return !rows.Failed();
}

bool Store::NoteChange(const std::string& key) {
    sqlite::Statement note = Prepare("INSERT INTO changes(origin, path) VALUES(?, ?)");
    if (!note) return false;
    note.Bind(1, origin_);
    note.Bind(2, key);
    if (!note.Run()) return false;
    const std::int64_t id = sqlite3_last_insert_rowid(database_.get());
    if (id % 256 != 0) return true;
    return Execute(("DELETE FROM changes WHERE id < " + std::to_string(id - kChangesKept)).c_str());
}

std::int64_t Store::Changes() {
    const std::lock_guard lock(mutex_);
    sqlite::Statement newest = Prepare("SELECT coalesce(max(id), 0) FROM changes");
    return newest && newest.Row() ? newest.Number(0) : -1;
}

bool Store::Commit(bool good) {
    if (good && Execute("COMMIT")) return true;
    failure_ = sqlite::ErrorText(database_.get());
    Execute("ROLLBACK");
    return false;
}

bool Store::Set(const Pairs& values) {
    for (const auto& [key, value] : values) {
        if (!ValidPath(key, false)) return false;
    }
    const std::lock_guard lock(mutex_);
    if (!Begin(0)) return false;
    bool good = true;
    for (const auto& [key, value] : values) good = good && SetOne(key, value);
    return Commit(good);
}

bool Store::DeleteOne(const std::string& key, bool prune) {
    sqlite::Statement remove =
        Prepare("DELETE FROM keys WHERE path = ?1 OR (path >= ?2 AND path < ?3)");
    if (remove) BindKeyAndBelow(remove, key);
    if (!remove || !NoteDeleted(key) || !remove.Run()) return false;
    if (sqlite3_changes(database_.get()) == 0) return true;
    return NoteChange(key) && (!prune || Prune(key.substr(0, key.rfind('/'))));
}

bool Store::Delete(const std::vector<std::string>& keys, bool prune) {
    for (const std::string& key : keys) {
        if (!ValidPath(key, false)) return false;
    }
    const std::lock_guard lock(mutex_);
    if (!Begin(0)) return false;
    bool good = true;
    for (const std::string& key : keys) good = good && DeleteOne(key, prune);
    return Commit(good);
}

Applied Store::Apply(const std::vector<ValueChange>& changes, bool force, std::int64_t undoes,
                     std::string& where) {
    for (const ValueChange& change : changes) {
        if (!ValidPath(change.path, false)) return Applied::kFailed;
    }
    const std::lock_guard lock(mutex_);
    if (!Begin(undoes)) return Applied::kFailed;
    bool good = true;
    for (const ValueChange& change : changes) {
        if (!force && Value(change.path) != change.before) {
            where = change.path;
            Execute("ROLLBACK");
            return Applied::kOtherwise;
        }
        good = good && (change.after ? SetOne(change.path, *change.after) : TakeValue(change.path));
    }
    return Commit(good) ? Applied::kDone : Applied::kFailed;
}

std::string Store::Failure() {
    const std::lock_guard lock(mutex_);
    return failure_;
}

void Store::KeepHistory(const std::string& who, const std::string& how) {
    const std::lock_guard lock(mutex_);
    history_.Keep(who, how);
}

std::optional<std::vector<Act>> Store::ReadHistory() {
    const std::lock_guard lock(mutex_);
    return History::Read(database_.get());
}

std::optional<std::vector<std::string>> Store::Children(const std::string& key) {
    if (!ValidPath(key, true)) return std::nullopt;
    if (key != "/" && !Get(key)) return std::nullopt;
    const std::lock_guard lock(mutex_);
    sqlite::Statement list = Prepare("SELECT name FROM keys WHERE parent = ? ORDER BY name");
    if (!list) return std::nullopt;
    list.Bind(1, key);
    std::vector<std::string> names;
    while (list.Row()) names.push_back(list.Text(0));
    return names;
}

std::optional<Pairs> Store::Dump(const std::string& key) {
    if (!ValidPath(key, true)) return std::nullopt;
    if (key != "/" && !Get(key)) return std::nullopt;
    const std::lock_guard lock(mutex_);
    sqlite::Statement dump = Prepare(
        "SELECT path, value FROM keys WHERE value IS NOT NULL AND (path = ?1 OR (path >= ?2 AND "
        "path < ?3)) ORDER BY path");
    if (!dump) return std::nullopt;
    BindKeyAndBelow(dump, key);
    Pairs pairs;
    while (dump.Row()) pairs.emplace_back(dump.Text(0), dump.Text(1));
    return pairs;
}

}  // namespace trelis
