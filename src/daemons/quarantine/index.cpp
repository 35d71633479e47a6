#include "daemons/quarantine/index.h"

#include <arpa/inet.h>

#include <algorithm>
#include <array>

namespace quarantine {

namespace {

constexpr char kTable[] =
    "CREATE TABLE IF NOT EXISTS messages(id TEXT PRIMARY KEY, at INTEGER NOT NULL, sender TEXT, "
    "recipients TEXT, peer TEXT, helo TEXT, subject TEXT, size INTEGER NOT NULL, verdict TEXT, "
    "section TEXT, rule TEXT, reason TEXT, state TEXT NOT NULL, before TEXT, changed INTEGER, "
    "source TEXT, room INTEGER, log_id TEXT);";
// Of an index that was made before they were known; each fails on all others.
constexpr const char* kLater[] = {"ALTER TABLE messages ADD COLUMN source TEXT",
                                  "ALTER TABLE messages ADD COLUMN room INTEGER",
                                  "ALTER TABLE messages ADD COLUMN log_id TEXT"};
constexpr char kRest[] =
    "CREATE INDEX IF NOT EXISTS messages_at ON messages(at);"
    "CREATE INDEX IF NOT EXISTS messages_state ON messages(state, at);"
    "CREATE INDEX IF NOT EXISTS messages_room ON messages(state, source, at, size, room);"
    "CREATE TABLE IF NOT EXISTS counters(name TEXT PRIMARY KEY, count INTEGER NOT NULL);";
constexpr char kColumns[] =
    "SELECT id, at, sender, recipients, peer, helo, subject, size, verdict, section, rule, reason, "
    "state, before, changed, log_id FROM messages ";

std::string Select(const char* rest) { return std::string(kColumns) + rest; }

// A pattern of LIKE for a text anywhere.
std::string Anywhere(const std::string& text) {
    std::string pattern = "%";
    for (const char c : text) {
        if (c == '%' || c == '_' || c == '\\') pattern += '\\';
        pattern += c;
    }
    return pattern + "%";
}

// Whoever has one address of a network of IPv6 has all of them.
std::string SourceOf(const std::string& peer) {
    in6_addr address{};
    if (inet_pton(AF_INET6, peer.c_str(), &address) != 1 || IN6_IS_ADDR_V4MAPPED(&address))
        return peer;
    std::fill_n(address.s6_addr + 8, 8, 0);
    std::array<char, INET6_ADDRSTRLEN> text{};
    inet_ntop(AF_INET6, &address, text.data(), text.size());
    return std::string(text.data()) + "/64";
}

}  // namespace

bool Index::Open(const std::string& path, bool make) {
    int error = 0;
    connection_.reset();  // the last one at a file takes its journal away, whatever has come there
    connection_ = sqlite::Open(path, make ? SQLITE_OPEN_CREATE : 0, error);
    // Without FULL a commit in WAL mode could be lost with the power.
    if (error == SQLITE_OK && sqlite::Execute(connection_.get(), "PRAGMA journal_mode=WAL") &&
        sqlite::Execute(connection_.get(), "PRAGMA synchronous=FULL") &&
        sqlite::Execute(connection_.get(), kTable)) {
        for (const char* each : kLater) sqlite::Execute(connection_.get(), each);
        if (sqlite::Execute(connection_.get(), kRest)) return true;
    }
    Fail();
    connection_.reset();
    return false;
}

bool Index::Fail() {
    complaint_ = connection_ == nullptr ? "no memory" : sqlite3_errmsg(connection_.get());
    return false;
}

bool Index::Begin() { return sqlite::Execute(connection_.get(), "BEGIN IMMEDIATE") || Fail(); }
bool Index::Commit() { return sqlite::Execute(connection_.get(), "COMMIT") || Fail(); }
void Index::Rollback() { sqlite::Execute(connection_.get(), "ROLLBACK"); }

bool Index::Put(const KeptMessage& message) {
    sqlite::Statement put(connection_.get(),
                          "INSERT OR REPLACE INTO messages(id, at, sender, recipients, peer, helo, "
                          "subject, size, verdict, section, rule, reason, state, before, changed, "
                          "source, room, log_id) VALUES(?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?)");
    if (!put) return Fail();
    put.Bind(1, message.id);
    put.Bind(2, message.at);
    put.Bind(3, message.sender);
    put.Bind(4, message.recipients);
    put.Bind(5, message.peer);
    put.Bind(6, message.helo);
    put.Bind(7, message.subject);
    put.Bind(8, static_cast<std::int64_t>(message.size));
    put.Bind(9, message.verdict);
    put.Bind(10, message.section);
    put.Bind(11, message.rule);
    put.Bind(12, message.reason);
    put.Bind(13, message.state);
    put.Bind(14, message.before);
    put.Bind(15, message.changed);
    put.Bind(16, SourceOf(message.peer));
    put.Bind(17, static_cast<std::int64_t>(RoomOf(message)));
    put.Bind(18, message.logId);
    return put.Run() || Fail();
}

bool Index::Remove(const std::string& id) {
    sqlite::Statement remove(connection_.get(), "DELETE FROM messages WHERE id = ?");
    if (!remove) return Fail();
    remove.Bind(1, id);
    return remove.Run() || Fail();
}

std::optional<std::vector<KeptMessage>> Index::Read(sqlite::Statement& statement) {
    std::vector<KeptMessage> found;
    while (statement && statement.Row()) {
        KeptMessage each;
        each.id = statement.Text(0);
        each.at = statement.Number(1);
        each.sender = statement.Text(2);
        each.recipients = statement.Text(3);
        each.peer = statement.Text(4);
        each.helo = statement.Text(5);
        each.subject = statement.Text(6);
        each.size = statement.Number(7);
        each.verdict = statement.Text(8);
        each.section = statement.Text(9);
        each.rule = statement.Text(10);
        each.reason = statement.Text(11);
        each.state = statement.Text(12);
        each.before = statement.Text(13);
        each.changed = statement.Number(14);
        each.logId = statement.Text(15);
        found.push_back(std::move(each));
    }
    if (!statement || statement.Failed()) {
        Fail();
        return std::nullopt;
    }
    return found;
}

std::optional<KeptMessage> Index::Find(const std::string& id) {
    sqlite::Statement find(connection_.get(), Select("WHERE id = ?").c_str());
    if (find) find.Bind(1, id);
    complaint_.clear();
    std::optional<std::vector<KeptMessage>> found = Read(find);
    if (!found || found->empty()) return std::nullopt;
    return std::move(found->front());
}

std::optional<std::vector<KeptMessage>> Index::List(const Filter& filter) {
    sqlite::Statement list(
        connection_.get(),
        Select("WHERE (?1 = '' OR id = ?1) AND (?2 = '%%' OR sender LIKE ?2 ESCAPE '\\') "
               "AND (?3 = '%%' OR recipients LIKE ?3 ESCAPE '\\') "
               "AND (?4 = '%%' OR subject LIKE ?4 ESCAPE '\\') AND (?5 = '' OR section = ?5) "
               "AND (?9 = '%%' OR id LIKE ?9 ESCAPE '\\' OR sender LIKE ?9 ESCAPE '\\' OR "
               "recipients LIKE ?9 ESCAPE '\\' OR subject LIKE ?9 ESCAPE '\\') AND at >= ?6 AND at "
               "< ?7 ORDER BY at DESC, id DESC LIMIT ?8")
            .c_str());
    if (list) {
        list.Bind(1, filter.id);
        list.Bind(2, Anywhere(filter.from));
        list.Bind(3, Anywhere(filter.to));
        list.Bind(4, Anywhere(filter.subject));
        list.Bind(5, filter.section);
        list.Bind(6, filter.since.value_or(0));
        list.Bind(7, filter.until.value_or(INT64_MAX));
        list.Bind(9, Anywhere(filter.any));
        list.Bind(8, static_cast<std::int64_t>(filter.limit > 0 ? filter.limit : -1));
    }
    return Read(list);
}

std::optional<std::vector<std::string>> Index::Texts(sqlite::Statement& statement) {
    std::vector<std::string> texts;
    while (statement && statement.Row()) texts.push_back(statement.Text(0));
    if (statement && !statement.Failed()) return texts;
    Fail();
    return std::nullopt;
}

std::optional<std::vector<std::string>> Index::Ids() {
    sqlite::Statement ids(connection_.get(), "SELECT id FROM messages");
    return Texts(ids);
}

std::optional<KeptMessage> Index::Oldest(const char* state, const std::string& source) {
    const bool any = source.empty();
    sqlite::Statement oldest(
        connection_.get(),
        Select(any ? "WHERE state = ?1 ORDER BY at, rowid LIMIT 1"
                   : "WHERE state = ?1 AND source = ?2 ORDER BY at, size, rowid LIMIT 1")
            .c_str());
    if (oldest) {
        oldest.Bind(1, state);
        if (!any) oldest.Bind(2, source);
    }
    complaint_.clear();
    std::optional<std::vector<KeptMessage>> found = Read(oldest);
    if (!found || found->empty()) return std::nullopt;
    return std::move(found->front());
}

std::optional<std::vector<Index::Share>> Index::Shares() {
    sqlite::Statement sums(
        connection_.get(),
        "SELECT source, SUM(COALESCE(room, size)), COUNT(*) FROM messages WHERE state = 'held' "
        "GROUP BY source");
    std::vector<Share> shares;
    while (sums && sums.Row())
        shares.push_back({sums.Text(0), static_cast<long long>(sums.Number(1)),
                          static_cast<long long>(sums.Number(2))});
    if (sums && !sums.Failed()) return shares;
    Fail();
    return std::nullopt;
}

std::optional<std::vector<std::string>> Index::Before(std::int64_t at, int limit) {
    sqlite::Statement old(connection_.get(),
                          "SELECT id FROM messages WHERE at < ? ORDER BY at LIMIT ?");
    if (old) {
        old.Bind(1, at);
        old.Bind(2, std::int64_t{limit});
    }
    return Texts(old);
}

std::optional<Numbers> Index::Count() {
    Numbers numbers;
    sqlite::Statement sums(connection_.get(),
                           "SELECT state, COUNT(*), SUM(size), SUM(COALESCE(room, size)) FROM "
                           "messages GROUP BY state");
    while (sums && sums.Row()) {
        const auto found = std::find(kStates.begin(), kStates.end(), sums.Text(0));
        if (found != kStates.end())
            numbers.messages[static_cast<std::size_t>(found - kStates.begin())] = sums.Number(1);
        numbers.bytes += sums.Number(2);
        numbers.room += sums.Number(3);
    }
    sqlite::Statement counters(connection_.get(), "SELECT name, count FROM counters");
    while (counters && counters.Row()) {
        const std::string name = counters.Text(0);
        if (name == counter::kPushedOut) numbers.pushedOut = counters.Number(1);
        if (name == counter::kExpired) numbers.expired = counters.Number(1);
        if (name == counter::kReleased) numbers.released = counters.Number(1);
    }
    if (sums && !sums.Failed() && counters && !counters.Failed()) return numbers;
    Fail();
    return std::nullopt;
}

bool Index::Add(const char* counter, int count) {
    sqlite::Statement add(connection_.get(),
                          "INSERT INTO counters VALUES(?1, ?2) ON CONFLICT(name) DO UPDATE SET "
                          "count = count + excluded.count");
    if (!add) return Fail();
    add.Bind(1, counter);
    add.Bind(2, std::int64_t{count});
    return add.Run() || Fail();
}

bool Index::Change(const std::string& id, std::initializer_list<const char*> from, const char* to,
                   std::int64_t now) {
    for (const char* each : from) {
        sqlite::Statement change(connection_.get(),
                                 "UPDATE messages SET before = CASE state WHEN 'releasing' THEN "
                                 "before ELSE state END, state = ?1, changed = ?2 WHERE id = ?3 "
                                 "AND state = ?4");
        if (!change) return Fail();
        change.Bind(1, to);
        change.Bind(2, now);
        change.Bind(3, id);
        change.Bind(4, each);
        if (!change.Run()) return Fail();
        if (sqlite3_changes(connection_.get()) == 1) return true;
    }
    complaint_.clear();
    return false;
}

bool Index::ChangeBack(const std::string& id, std::int64_t now) {
    sqlite::Statement change(connection_.get(),
                             "UPDATE messages SET state = before, changed = ?1 WHERE id = ?2 AND "
                             "state = 'releasing' AND before <> ''");
    if (!change) return Fail();
    change.Bind(1, now);
    change.Bind(2, id);
    return change.Run() || Fail();
}

}  // namespace quarantine
