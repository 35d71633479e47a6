#include "daemons/registryd/columns.h"

#include <algorithm>
#include <string_view>
#include <utility>

#include "platform/console.h"
#include "text/printable.h"

namespace {

constexpr std::size_t kMostWidth = 100;
constexpr std::size_t kLeastWidth = 48;
constexpr std::size_t kGap = 2;
constexpr std::size_t kIndent = 4;
constexpr std::size_t kLeastLast = 40;

// The bytes of the first `width` characters.
std::size_t BytesOf(std::string_view text, std::size_t width) {
    std::size_t bytes = 0;
    for (; bytes < text.size() && width > 0; --width)
        bytes += std::max<std::size_t>(PrintableLength(text.substr(bytes)), 1);
    return bytes;
}

// Cuts the first line off: at a blank, or through a word that is longer than a line.
std::string TakeLine(std::string_view& text, std::size_t width) {
    if (TextWidth(text) <= width) return std::string(std::exchange(text, {}));
    const std::size_t room = BytesOf(text, width);
    const std::size_t blank = text.rfind(' ', room);
    const bool atBlank = blank != std::string_view::npos && blank != 0;
    std::string line(text.substr(0, atBlank ? blank : room));
    text.remove_prefix(atBlank ? blank + 1 : room);
    return line;
}

// Of all columns but the last.
std::vector<std::size_t> Widths(const std::vector<TextRow>& rows, std::size_t width) {
    std::vector<std::size_t> widths(rows.front().size() - 1);
    for (std::size_t i = 0; i < widths.size(); ++i) {
        const std::size_t most = i == 0 ? width / 2 : width / 4;
        for (const TextRow& row : rows)
            widths[i] = std::min(std::max(widths[i], TextWidth(row[i])), most);
    }
    return widths;
}

// The cells side by side, each in as many lines as it needs.
std::string Lines(const TextRow& cells, const std::vector<std::size_t>& widths, std::size_t start) {
    std::string text;
    std::vector<std::string_view> rest(cells.begin(), cells.end());
    rest.resize(widths.size());
    do {
        std::string line;
        std::size_t at = start;
        for (std::size_t i = 0; i < widths.size(); ++i) {
            const std::string part = TakeLine(rest[i], widths[i]);
            if (!part.empty()) line.append(at - TextWidth(line), ' ').append(part);
            at += widths[i] + kGap;
        }
        text += line + '\n';
    } while (std::any_of(rest.begin(), rest.end(), [](auto cell) { return !cell.empty(); }));
    return text;
}

}  // namespace

std::size_t PageWidth() {
    const std::size_t width = platform::TerminalColumns();
    return width == 0 ? kMostWidth : std::clamp(width, kLeastWidth, kMostWidth);
}

std::string InColumns(const std::vector<TextRow>& rows, std::size_t width) {
    if (rows.empty()) return "";
    std::vector<TextRow> clean = rows;
    for (TextRow& row : clean) {
        for (std::string& cell : row) cell = CleanText(cell);
    }
    std::vector<std::size_t> widths = Widths(clean, width);
    std::size_t taken = 0;
    for (const std::size_t each : widths) taken += each + kGap;
    const bool beside = taken + kLeastLast <= width;
    if (beside) widths.push_back(width - taken);
    std::string text;
    for (const TextRow& row : clean) {
        text += Lines(row, widths, 0);
        if (!beside) text += Lines({row.back()}, {width - kIndent}, kIndent);
    }
    return text;
}
