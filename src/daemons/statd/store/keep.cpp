#include "daemons/statd/store/keep.h"

#include <string>

#include "daemons/statd/store/text.h"
#include "text/day.h"

namespace stats {
namespace {

// The names behind the first ?3 of day ?2, by their totals.
constexpr char kMakeLesser[] =
    "CREATE TEMP TABLE lesser AS"
    " SELECT name FROM names WHERE kind = ?1 AND day = ?2 AND name <> '(other)'"
    " GROUP BY name ORDER BY sum(count) DESC, name LIMIT -1 OFFSET ?3";

std::string StateName(Kind kind) { return "trimmed" + std::to_string(static_cast<int>(kind)); }

bool RunTrim(Database& database, const std::string& sql, Kind kind, std::int64_t day,
             std::int64_t kept) {
    Statement statement = database.Prepare(sql);
    if (!statement) return false;
    statement.Bind(1, static_cast<std::int64_t>(kind));
    statement.Bind(2, day);
    statement.Bind(3, kept);
    return statement.Run();
}

bool Trim(Database& database, Kind kind, std::int64_t day, std::int64_t kept) {
    static_assert(std::string_view(kOtherName) == "(other)");
    Transaction transaction(database, "BEGIN IMMEDIATE");
    if (!transaction.Good()) return false;
    database.Execute("DROP TABLE IF EXISTS temp.lesser");
    if (!RunTrim(database, kMakeLesser, kind, day, kept)) return false;
    const bool good =
        RunTrim(database,
                "INSERT INTO names(kind, day, name, event, count, bytes)"
                " SELECT ?1, ?2, '(other)', event, sum(count), sum(bytes) FROM names"
                " WHERE kind = ?1 AND day = ?2 AND name IN temp.lesser GROUP BY event"
                " ON CONFLICT(kind, day, name, event) DO UPDATE SET"
                " count = count + excluded.count, bytes = bytes + excluded.bytes",
                kind, day, 0) &&
        RunTrim(database, "DELETE FROM names WHERE kind = ?1 AND day = ?2 AND name IN temp.lesser",
                kind, day, 0);
    Statement state = database.Prepare("INSERT OR REPLACE INTO state(name, value) VALUES(?, ?)");
    if (!good || !state) return false;
    state.Bind(1, std::string_view(StateName(kind)));
    state.Bind(2, day);
    return state.Run() && database.Execute("DROP TABLE temp.lesser") && transaction.Commit();
}

// The rows that the statement deleted of those before the limit.
bool DeleteSome(Database& database, const char* sql, std::int64_t limit, bool& deleted) {
    Statement statement = database.Prepare(sql);
    if (!statement) return false;
    statement.Bind(1, limit);
    statement.Bind(2, kRowsAStep);
    if (!statement.Run()) return false;
    deleted = deleted || database.Number("SELECT changes()", 0) > 0;
    return true;
}

}  // namespace

bool DeleteOldStep(Database& database, std::int64_t firstDay) {
    bool deleted = false;
    Transaction transaction(database, "BEGIN IMMEDIATE");
    const bool good =
        transaction.Good() &&
        DeleteSome(database,
                   "DELETE FROM records WHERE id IN (SELECT id FROM records WHERE received < ?1"
                   " ORDER BY received LIMIT ?2)",
                   firstDay * kDaySeconds, deleted) &&
        DeleteSome(database,
                   "DELETE FROM hours WHERE (hour, event) IN (SELECT hour, event FROM hours"
                   " WHERE hour < ?1 LIMIT ?2)",
                   firstDay * (kDaySeconds / kHourSeconds), deleted) &&
        DeleteSome(database,
                   "DELETE FROM names WHERE (kind, day, name, event) IN (SELECT kind, day, name,"
                   " event FROM names WHERE kind IN (1, 2, 3, 4) AND day < ?1 LIMIT ?2)",
                   firstDay, deleted);
    return good && transaction.Commit() && deleted;
}

bool TrimNamesStep(Database& database, std::int64_t today, std::int64_t kept) {
    for (const Kind kind : kKinds) {
        const std::string number = std::to_string(static_cast<int>(kind));
        const std::int64_t trimmed =
            database.Number("SELECT value FROM state WHERE name = '" + StateName(kind) + "'", -1);
        const std::int64_t day =
            database.Number("SELECT day FROM names WHERE kind = " + number + " AND day > " +
                                std::to_string(trimmed) + " ORDER BY day LIMIT 1",
                            today);
        if (day < today) return Trim(database, kind, day, kept);
    }
    return false;
}

}  // namespace stats
