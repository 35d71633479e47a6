#include "tools/report_tables.h"

#include <algorithm>
#include <string_view>
#include <vector>

#include "platform/console.h"
#include "text/ascii.h"
#include "text/printable.h"

namespace {

constexpr std::size_t kMostWidth = 100;
constexpr std::size_t kGap = 2;
constexpr std::size_t kLeastName = 12;
constexpr std::string_view kCut = "..";
constexpr char kNothing[] = "nothing in this period\n";
constexpr std::string_view kCode = "Code";  // a number that counts nothing

struct Column {
    std::vector<std::string> cells;  // the heading first
    std::size_t width = 0;
    bool numbers = false;
};

bool IsNumber(const std::string& cell) {
    return !cell.empty() && std::all_of(cell.begin(), cell.end(), IsDigit);
}

std::vector<Column> ColumnsOf(const ReportTable& table) {
    std::vector<Column> columns;
    for (const ReportRow& row : table) {
        if (columns.size() < row.size()) columns.resize(row.size());
    }
    for (std::size_t i = 0; i < columns.size(); ++i) {
        Column& column = columns[i];
        for (const ReportRow& row : table) {
            column.cells.push_back(i < row.size() ? CleanText(row[i]) : "");
            column.width = std::max(column.width, TextWidth(column.cells.back()));
        }
        column.numbers = i > 0 && table.size() > 1 &&
                         std::all_of(column.cells.begin() + 1, column.cells.end(), IsNumber);
    }
    return columns;
}

// Takes the columns out that are 0 in each row; their headings.
std::string TakeEmpty(std::vector<Column>& columns) {
    std::string names;
    const auto empty = [&](const Column& column) {
        const bool zero =
            column.numbers && std::all_of(column.cells.begin() + 1, column.cells.end(),
                                          [](const auto& cell) { return cell == "0"; });
        if (zero) names += (names.empty() ? "" : ", ") + column.cells.front();
        return zero;
    };
    columns.erase(std::remove_if(columns.begin(), columns.end(), empty), columns.end());
    return names;
}

std::size_t WidthOf(const std::vector<Column>& columns) {
    std::size_t width = 0;
    for (const Column& column : columns) width += column.width + kGap;
    return width - std::min(width, kGap);
}

std::string Cut(const std::string& text, std::size_t width) {
    if (TextWidth(text) <= width) return text;
    std::string cut;
    for (std::string_view rest = text; TextWidth(cut) + kCut.size() < width;) {
        const std::size_t length = std::max<std::size_t>(PrintableLength(rest), 1);
        cut += rest.substr(0, length);
        rest.remove_prefix(length);
    }
    return cut + std::string(kCut);
}

void AppendRow(std::string& out, const std::vector<Column>& columns, std::size_t row) {
    std::string line;
    for (const Column& column : columns) {
        if (&column != &columns.front()) line.append(kGap, ' ');
        const std::string cell = Cut(column.cells[row], column.width);
        const std::string blanks(column.width - TextWidth(cell), ' ');
        line += column.numbers ? blanks + cell : cell + blanks;
    }
    line.erase(line.find_last_not_of(' ') + 1);
    out += line + '\n';
}

}  // namespace

std::size_t TerminalWidth() {
    const std::size_t width = platform::TerminalColumns();
    return width == 0 ? kMostWidth : std::min(width, kMostWidth);
}

std::string TableForTerminal(const ReportTable& table, std::size_t width) {
    const std::string heading = table.empty() || table[0].empty() ? "" : CleanText(table[0][0]);
    std::string out = heading.empty() ? "" : "By " + LowerCase(heading) + "\n\n";
    if (table.size() < 2) return out + kNothing;
    std::vector<Column> columns = ColumnsOf(table);
    const std::string empty = TakeEmpty(columns);
    const bool nothing = std::none_of(columns.begin(), columns.end(), [](const Column& column) {
        return column.numbers && column.cells.front() != kCode;
    });
    if (!empty.empty() && nothing) return out + kNothing;
    if (const std::size_t all = WidthOf(columns); all > width && !columns.empty()) {
        std::size_t& name = columns.front().width;
        name -= std::min(all - width, name - std::min(name, kLeastName));
    }
    for (std::size_t row = 0; row < table.size(); ++row) AppendRow(out, columns, row);
    if (!empty.empty()) out += "(0 in all: " + empty + ")\n";
    return out;
}
