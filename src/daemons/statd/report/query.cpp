#include "daemons/statd/report/query.h"

#include <algorithm>
#include <numeric>
#include <span>

#include "daemons/statd/store/text.h"
#include "platform/clock.h"
#include "text/day.h"

namespace stats {
namespace {

constexpr std::int64_t kHoursADay = kDaySeconds / kHourSeconds;

struct ListText {
    Kind kind;
    const char* title;
    const char* heading;
};
constexpr ListText kLists[] = {
    {Kind::kPeer, "Peers", "Peer"},
    {Kind::kSenderDomain, "Sender domains", "Sender domain"},
    {Kind::kRecipientDomain, "Recipient domains", "Recipient domain"},
    {Kind::kSignature, "Signatures", "Signature"},
};

std::int64_t Sum(const std::array<std::int64_t, kStatGroups>& numbers, std::size_t from,
                 std::size_t to) {
    return std::accumulate(numbers.begin() + static_cast<std::ptrdiff_t>(from),
                           numbers.begin() + static_cast<std::ptrdiff_t>(to), std::int64_t{0});
}

// One column of events and one of bytes for each group.
std::string GroupSums() {
    std::string sql;
    std::string known;
    const auto add = [&](const std::string& condition) {
        for (const char* column : {"count", "bytes"})
            sql += std::string(", ifnull(sum(") + column + ") FILTER (WHERE event " + condition +
                   "), 0)";
    };
    for (const StatColumn& column : kStatColumns) {
        std::string codes = std::to_string(column.code);
        if (column.also != 0) codes += ", " + std::to_string(column.also);
        add("IN (" + codes + ")");
        known += (known.empty() ? "" : ", ") + codes;
    }
    add("NOT IN (" + known + ")");
    return sql;
}

Counts ReadCounts(const Statement& statement, int column) {
    Counts counts;
    for (std::size_t group = 0; group < kStatGroups; ++group) {
        counts.events[group] = statement.Number(column++);
        counts.bytes[group] = statement.Number(column++);
    }
    return counts;
}

}  // namespace

void Counts::Add(const Counts& other) {
    for (std::size_t i = 0; i < kStatGroups; ++i) {
        events[i] += other.events[i];
        bytes[i] += other.bytes[i];
    }
}
std::int64_t Counts::Total() const { return Sum(events, 0, kStatGroups); }
std::int64_t Counts::Messages() const { return Sum(events, 0, kStatVerdicts); }
std::int64_t Counts::Infected() const {
    std::int64_t infected = 0;
    for (std::size_t i = 0; i < kStatOtherGroup; ++i) {
        if (IsStatInfected(kStatColumns[i].code)) infected += events[i];
    }
    return infected;
}
std::int64_t Counts::Bytes() const { return Sum(bytes, 0, kStatGroups); }

std::unique_ptr<ReportReader> ReportReader::Open(const std::string& path) {
    auto database = Database::OpenReader(path);
    if (database == nullptr) return nullptr;
    return std::unique_ptr<ReportReader>(new ReportReader(std::move(database)));
}

bool ReportReader::Read(std::int64_t firstDay, std::int64_t lastDay, std::int64_t names,
                        Report& report) {
    const std::lock_guard lock(mutex_);
    const Transaction view(*database_, "BEGIN");
    if (!view.Good()) return false;
    report.firstDay = firstDay;
    report.lastDay = lastDay;
    report.made = platform::UtcSeconds();
    if (!ReadDays(report) || !ReadCodes(report)) return false;
    for (const ListText& text : kLists) {
        report.lists.push_back({text.kind, text.title, text.heading, {}});
        if (!ReadNames(report, names, report.lists.back())) return false;
    }
    return true;
}

bool ReportReader::ReadDays(Report& report) {
    Statement days = database_->Prepare("SELECT hour / 24" + GroupSums() +
                                        " FROM hours WHERE hour BETWEEN ? AND ?"
                                        " GROUP BY 1 ORDER BY 1");
    if (!days) return false;
    days.Bind(1, report.firstDay * kHoursADay);
    days.Bind(2, report.lastDay * kHoursADay + kHoursADay - 1);
    while (days.Row()) {
        report.days.push_back({FormatDay(days.Number(0)), ReadCounts(days, 1)});
        report.totals.Add(report.days.back().counts);
    }
    return !days.Failed();
}

bool ReportReader::ReadCodes(Report& report) {
    for (const StatEvent& event : std::span(kStatEvents).first<kStatAlways>())
        report.codes.push_back({event.code, 0, 0});
    Statement codes = database_->Prepare(
        "SELECT event, sum(count), sum(bytes) FROM hours"
        " WHERE hour BETWEEN ? AND ? GROUP BY event ORDER BY event");
    if (!codes) return false;
    codes.Bind(1, report.firstDay * kHoursADay);
    codes.Bind(2, report.lastDay * kHoursADay + kHoursADay - 1);
    while (codes.Row()) {
        const CodeCount count{codes.Number(0), codes.Number(1), codes.Number(2)};
        const auto end = report.codes.begin() + kStatAlways;
        const auto place = std::find_if(report.codes.begin(), end, [&](const CodeCount& each) {
            return each.code == count.code;
        });
        if (place == end) {
            report.codes.push_back(count);
        } else {
            *place = count;
        }
    }
    return !codes.Failed();
}

bool ReportReader::ReadNames(const Report& report, std::int64_t names, NameList& list) {
    const std::string from = " FROM names WHERE kind = ?1 AND day BETWEEN ?2 AND ?3";
    Statement top = database_->Prepare("SELECT name, sum(count) AS total" + GroupSums() + from +
                                       " AND name <> '(other)' GROUP BY name"
                                       " ORDER BY total DESC, name LIMIT " +
                                       std::to_string(names));
    Statement all = database_->Prepare("SELECT 0" + GroupSums() + from);
    if (!top || !all) return false;
    for (Statement* statement : {&top, &all}) {
        statement->Bind(1, static_cast<std::int64_t>(list.kind));
        statement->Bind(2, report.firstDay);
        statement->Bind(3, report.lastDay);
    }
    if (!all.Row()) return false;
    Counts rest = ReadCounts(all, 1);
    while (top.Row()) {
        list.rows.push_back({top.Text(0), ReadCounts(top, 2)});
        for (std::size_t i = 0; i < kStatGroups; ++i) {
            rest.events[i] -= list.rows.back().counts.events[i];
            rest.bytes[i] -= list.rows.back().counts.bytes[i];
        }
    }
    if (rest.Total() > 0) list.rows.push_back({kOtherName, rest});
    return !top.Failed();
}

bool ReportReader::ReadHours(std::int64_t firstHour, std::int64_t lastHour,
                             std::vector<Counts>& hours) {
    const std::lock_guard lock(mutex_);
    hours.assign(static_cast<std::size_t>(std::max<std::int64_t>(lastHour - firstHour + 1, 0)), {});
    Statement rows = database_->Prepare(
        "SELECT hour, event, count, bytes FROM hours WHERE hour BETWEEN ? AND ?");
    if (!rows) return false;
    rows.Bind(1, firstHour);
    rows.Bind(2, lastHour);
    while (rows.Row()) {
        Counts& counts = hours[static_cast<std::size_t>(rows.Number(0) - firstHour)];
        const std::size_t group = StatGroup(rows.Number(1));
        counts.events[group] += rows.Number(2);
        counts.bytes[group] += rows.Number(3);
    }
    return !rows.Failed();
}

std::int64_t ReportReader::Records() {
    const std::lock_guard lock(mutex_);
    return database_->Number("SELECT ifnull(sum(count), 0) FROM hours", 0);
}

}  // namespace stats
