#include "daemons/statd/report/format.h"

#include <algorithm>
#include <cctype>

#include "daemons/statd/report/table.h"
#include "daemons/statd/store/text.h"
#include "text/day.h"
#include "text/printable.h"

namespace stats {
namespace {

constexpr std::size_t kWordLimit = 255;

void AppendAligned(std::string& out, const std::vector<std::string>& cells,
                   const std::vector<std::size_t>& widths) {
    std::string line;
    for (std::size_t i = 0; i < cells.size(); ++i) {
        const std::string blanks(widths[i] - TextWidth(cells[i]), ' ');
        line += i == 0 ? cells[i] + blanks : "  " + blanks + cells[i];
    }
    line.erase(line.find_last_not_of(' ') + 1);
    out += line + '\n';
}

void AppendTable(std::string& out, const Table& table) {
    out += '\n' + table.title + '\n' + std::string(table.title.size(), '-') + '\n';
    if (table.rows.empty()) {
        out += "(none)\n";
        return;
    }
    std::vector<std::size_t> widths;
    for (const std::string& heading : table.headings) widths.push_back(TextWidth(heading));
    for (const auto& row : table.rows) {
        for (std::size_t i = 0; i < row.size(); ++i)
            widths[i] = std::max(widths[i], TextWidth(row[i]));
    }
    AppendAligned(out, table.headings, widths);
    for (const auto& row : table.rows) AppendAligned(out, row, widths);
}

std::string CsvField(const std::string& text) {
    constexpr std::string_view kFormula = "=+-@\t\r";
    std::string safe =
        !text.empty() && kFormula.find(text[0]) != std::string_view::npos ? '\'' + text : text;
    if (safe.find_first_of(",\"\r\n") == std::string::npos) return safe;
    for (std::size_t at = 0; (at = safe.find('"', at)) != std::string::npos; at += 2)
        safe.insert(at, 1, '"');
    return '"' + safe + '"';
}

void AppendCsv(std::string& out, const char* section, const NamedCounts& named) {
    for (std::size_t group = 0; group < kStatGroups; ++group) {
        if (named.counts.events[group] == 0) continue;
        out += CsvField(section) + ',' + CsvField(named.name) + ',' +
               CsvField(StatGroupName(group)) + ',' + std::to_string(named.counts.events[group]) +
               ',' + std::to_string(named.counts.bytes[group]) + "\r\n";
    }
}

std::string Word(const std::string& text) {
    std::string word = CleanText(text, kWordLimit);
    std::replace(word.begin(), word.end(), '"', '\'');
    std::replace(word.begin(), word.end(), '\\', '/');
    return '"' + (word.empty() ? "-" : word) + '"';
}

void AppendWords(std::string& out, const std::vector<std::string>& cells) {
    for (std::size_t i = 0; i < cells.size(); ++i) {
        if (i != 0) out += ' ';
        out += Word(cells[i]);
    }
    out += '\n';
}

}  // namespace

std::string FormatText(const Report& report) {
    std::string out = "Vantrel mail statistics\n" + PeriodText(report) + " (UTC), made " +
                      FormatTime(report.made) + "\n\nMessages " +
                      Grouped(report.totals.Messages(), ",") + ", infected " +
                      Grouped(report.totals.Infected(), ",") + ", bytes " +
                      Grouped(report.totals.Bytes(), ",") + '\n';
    if (report.totals.Total() == 0) return out + "\nNo records in this period.\n";
    for (const Table& table : MakeTables(report)) AppendTable(out, table);
    return out;
}

std::string FormatCsv(const Report& report) {
    std::string out = "Section,Name,Event,Count,Bytes\r\n";
    for (const CodeCount& code : report.codes) {
        out += "Total,All," + CsvField(CodeName(code.code)) + ',' + std::to_string(code.events) +
               ',' + std::to_string(code.bytes) + "\r\n";
    }
    for (const NamedCounts& day : report.days) AppendCsv(out, "Day", day);
    for (const NameList& list : report.lists) {
        for (const NamedCounts& named : list.rows) AppendCsv(out, list.heading, named);
    }
    return out;
}

std::string FormatTables(const Report& report) {
    std::string out;
    for (const Table& table : MakeTables(report)) {
        out += std::to_string(table.rows.size() + 1) + ' ' + std::to_string(table.headings.size()) +
               '\n';
        AppendWords(out, table.headings);
        for (const auto& row : table.rows) AppendWords(out, row);
        out += '\n';
    }
    return out;
}

}  // namespace stats
