#include "trelis/history.h"

#include <set>

#include "platform/clock.h"

namespace trelis {
namespace {

// Older acts are forgotten, and those that more keys than this have changed behind.
constexpr std::int64_t kActsKept = 1000;
constexpr std::int64_t kRowsKept = 100'000;

void BindOrNull(sqlite::Statement& statement, int index, const std::optional<std::string>& value) {
    if (value)
        statement.Bind(index, *value);
    else
        statement.BindNull(index);
}

std::optional<std::string> TextOrNull(const sqlite::Statement& statement, int column, int isNull) {
    if (statement.Number(isNull) != 0) return std::nullopt;
    return statement.Text(column);
}

// An act is taken back by another that isn't itself.
void MarkUndone(std::vector<Act>& acts) {
    std::set<std::int64_t> undone;
    for (auto act = acts.rbegin(); act != acts.rend(); ++act) {
        act->undone = undone.count(act->number) != 0;
        if (!act->undone && act->undoes != 0) undone.insert(act->undoes);
    }
}

}  // namespace

const char kHistorySchema[] =
    "CREATE TABLE IF NOT EXISTS history(id INTEGER PRIMARY KEY AUTOINCREMENT, act INTEGER NOT NULL,"
    " undoes INTEGER NOT NULL, time INTEGER NOT NULL, who TEXT NOT NULL, how TEXT NOT NULL,"
    " path TEXT NOT NULL, old TEXT, new TEXT);"
    "CREATE INDEX IF NOT EXISTS acts ON history(act);";

bool History::Number(sqlite3* database) {
    sqlite::Statement last(database, "SELECT coalesce(max(act), 0) FROM history");
    if (!last || !last.Row()) return false;
    act_ = last.Number(0) + 1;
    sqlite::Statement forget(database,
                             "DELETE FROM history WHERE act <= ?1 OR act <="
                             " (SELECT act FROM history ORDER BY id DESC LIMIT 1 OFFSET ?2)");
    if (!forget) return false;
    forget.Bind(1, act_ - kActsKept);
    forget.Bind(2, kRowsKept);
    return forget.Run();
}

bool History::Note(sqlite3* database, const ValueChange& change) {
    if (who_.empty() || change.before == change.after) return true;
    if (act_ == 0 && !Number(database)) return false;
    sqlite::Statement note(database,
                           "INSERT INTO history(act, undoes, time, who, how, path, old, new)"
                           " VALUES(?, ?, ?, ?, ?, ?, ?, ?)");
    if (!note) return false;
    note.Bind(1, act_);
    note.Bind(2, undoes_);
    note.Bind(3, platform::UtcSeconds());
    note.Bind(4, who_);
    note.Bind(5, how_);
    note.Bind(6, change.path);
    BindOrNull(note, 7, change.before);
    BindOrNull(note, 8, change.after);
    return note.Run();
}

std::optional<std::vector<Act>> History::Read(sqlite3* database) {
    sqlite::Statement rows(database,
                           "SELECT act, undoes, time, who, how, path, old, new, old IS NULL,"
                           " new IS NULL FROM history ORDER BY id");
    if (!rows) return std::nullopt;
    std::vector<Act> acts;
    while (rows.Row()) {
        if (acts.empty() || acts.back().number != rows.Number(0)) {
            Act& act = acts.emplace_back();
            act.number = rows.Number(0);
            act.undoes = rows.Number(1);
            act.time = rows.Number(2);
            act.who = rows.Text(3);
            act.how = rows.Text(4);
        }
        acts.back().changes.push_back(
            {rows.Text(5), TextOrNull(rows, 6, 8), TextOrNull(rows, 7, 9)});
    }
    if (rows.Failed()) return std::nullopt;
    MarkUndone(acts);
    return acts;
}

}  // namespace trelis
