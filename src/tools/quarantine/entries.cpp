#include "tools/quarantine/entries.h"

#include <algorithm>
#include <array>

#include "platform/clock.h"
#include "text/printable.h"

namespace {

using quarantine::KeptMessage;

constexpr std::size_t kColumns = 8;
using Row = std::array<std::string, kColumns>;
// The widest that a column gets; the last one has no end.
constexpr std::size_t kWidest[kColumns] = {40, 20, 12, 12, 12, 30, 30, 60};

std::string Clean(const std::string& text) { return CleanText(text); }
std::string Sender(const KeptMessage& message) {
    return message.sender.empty() ? "<>" : Clean(message.sender);
}

Row RowOf(const KeptMessage& message) {
    return {message.id,
            platform::UtcTimeText(message.at / 1000),
            message.state,
            std::to_string(message.size),
            Clean(message.section),
            Sender(message),
            Clean(message.recipients),
            Clean(message.subject)};
}

std::string Cut(const std::string& text, std::size_t most) {
    if (TextWidth(text) <= most) return text;
    std::size_t end = 0;
    for (std::size_t width = 0; width + 3 < most; ++width)
        end += std::max<std::size_t>(PrintableLength(std::string_view(text).substr(end)), 1);
    return text.substr(0, end) + "...";
}

struct NamedText {
    const char* name;
    std::string value;
};
std::vector<NamedText> Texts(const KeptMessage& message) {
    return {{"id", message.id},           {"time", platform::UtcTimeTextMs(message.at)},
            {"state", message.state},     {"from", Sender(message)},
            {"to", message.recipients},   {"subject", message.subject},
            {"peer", message.peer},       {"verdict", message.verdict},
            {"section", message.section}, {"rule", message.rule},
            {"reason", message.reason}};
}

}  // namespace

std::string EntriesAsTable(const std::vector<KeptMessage>& messages) {
    std::vector<Row> rows = {{"ID", "TIME", "STATE", "BYTES", "SECTION", "FROM", "TO", "SUBJECT"}};
    for (const KeptMessage& each : messages) rows.push_back(RowOf(each));
    std::array<std::size_t, kColumns> widths{};
    for (Row& row : rows) {
        for (std::size_t i = 0; i < kColumns; ++i) {
            row[i] = Cut(row[i], kWidest[i]);
            widths[i] = std::max(widths[i], TextWidth(row[i]));
        }
    }
    std::string table;
    for (const Row& row : rows) {
        for (std::size_t i = 0; i < kColumns; ++i) {
            table += row[i];
            if (i + 1 < kColumns) table.append(widths[i] - TextWidth(row[i]) + 2, ' ');
        }
        table += '\n';
    }
    return table;
}

std::string EntryAsJson(const KeptMessage& message) {
    std::string json = "{";
    for (const NamedText& each : Texts(message))
        json += QuotedText(each.name) + ":" + QuotedText(each.value) + ",";
    return json + "\"size\":" + std::to_string(message.size) + "}";
}

std::string EntryAsText(const KeptMessage& message) {
    std::string text;
    for (const NamedText& each : Texts(message))
        text += std::string(each.name) + ": " + Clean(each.value) + "\n";
    return text + "size: " + std::to_string(message.size) + "\n";
}
