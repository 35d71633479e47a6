#include "daemons/statd/report/table.h"

#include "daemons/statd/store/text.h"
#include "text/day.h"

namespace stats {
namespace {

std::vector<std::string> CountHeadings(const char* first) {
    std::vector<std::string> headings{first, "Total"};
    for (std::size_t group = 0; group < kStatGroups; ++group)
        headings.emplace_back(StatGroupColumn(group));
    headings.emplace_back("Bytes");
    return headings;
}

std::vector<std::string> CountRow(const NamedCounts& named) {
    std::vector<std::string> row{named.name, std::to_string(named.counts.Total())};
    for (const std::int64_t events : named.counts.events) row.push_back(std::to_string(events));
    row.push_back(std::to_string(named.counts.Bytes()));
    return row;
}

Table CountTable(const char* title, const char* heading, const std::vector<NamedCounts>& rows) {
    Table table{title, CountHeadings(heading), {}};
    for (const NamedCounts& named : rows) table.rows.push_back(CountRow(named));
    return table;
}

}  // namespace

std::string CodeName(std::int64_t code) {
    for (const StatEvent& event : kStatEvents) {
        if (event.code == code) return event.name;
    }
    return "Event " + std::to_string(code);
}

std::vector<Table> MakeTables(const Report& report) {
    Table events{"Events", {"Event", "Code", "Total", "Bytes"}, {}};
    for (const CodeCount& code : report.codes)
        events.rows.push_back({CodeName(code.code), std::to_string(code.code),
                               std::to_string(code.events), std::to_string(code.bytes)});
    std::vector<Table> tables{events, CountTable("Days", "Day", report.days)};
    for (const NameList& list : report.lists)
        tables.push_back(CountTable(list.title, list.heading, list.rows));
    return tables;
}

std::string PeriodText(const Report& report) {
    return FormatDay(report.firstDay) + " to " + FormatDay(report.lastDay);
}

std::string EscapeHtml(std::string_view text) {
    std::string out;
    constexpr std::string_view kSpecial = "&<>\"'";
    constexpr const char* kEscaped[] = {"&amp;", "&lt;", "&gt;", "&quot;", "&#39;"};
    for (const char c : text) {
        const std::size_t which = kSpecial.find(c);
        if (which == std::string_view::npos) {
            out += c;
        } else {
            out += kEscaped[which];
        }
    }
    return out;
}

}  // namespace stats
