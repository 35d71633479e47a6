#include "daemons/logd/describe.h"

#include <algorithm>
#include <cstdlib>
#include <optional>

#include "daemons/logd/quote.h"
#include "logclient/levels.h"
#include "platform/clock.h"
#include "tagmsg/tags.h"
#include "text/ascii.h"

namespace {

struct FieldName {
    std::uint32_t tag;
    const char* name;
};
constexpr FieldName kFields[] = {
    {TagSource, "source"},
    {TagMessage, "message"},
    {TagFrom, "from"},
    {TagSender, "sender"},
    {TagRecipients, "recipients"},
    {TagPath, "path"},
    {TagHost, "host"},
    {TagHostDetail, "host_detail"},
    {TagDetails, "details"},
    {TagStatusText, "status"},
    {TagLabel, "label"},
    {TagAlertLabel, "alert"},
    {TagNumberText, "number"},
    {TagInfoText, "info"},
    {TagEventTextA, "text_a"},
    {TagEventTextB, "text_b"},
    {TagEventTextC, "text_c"},
};
constexpr std::size_t kMostDigits = 18;

const char* KindName(std::uint32_t word) {
    for (const LogClass& each : kLogClasses) {
        if (each.kind == (word & 0xFFFF0000)) return each.name;
    }
    return (word & 0xFFFF0000) == kEventUnclassed ? "Unclassed" : "Unknown";
}

const char* LevelName(std::uint32_t word) {
    for (const LogLevel& level : kLogLevels) {
        if ((word & level.bit) != 0) return level.word;
    }
    return "high";
}

// A late event says when it was.
constexpr std::int64_t kLate = 2;  // seconds
std::optional<std::int64_t> StampOfLate(TagMsgNode* event) {
    const void* text = nullptr;
    if (TagMsgPeekAttr(event, TagStamp, &text) != TAGMSG_OK || text == nullptr) return std::nullopt;
    const std::int64_t stamp = std::strtoll(static_cast<const char*>(text), nullptr, 10);
    if (stamp <= 0 || platform::UtcSeconds() - stamp < kLate) return std::nullopt;
    return stamp;
}

bool IsNumber(std::string_view text) {
    if (text.starts_with('-')) text.remove_prefix(1);
    // JSON has none that begin with a 0 and go on.
    return !text.empty() && text.size() <= kMostDigits &&
           std::all_of(text.begin(), text.end(), IsDigit) &&
           (text.size() == 1 || text.front() != '0');
}

void AddJson(std::string& line, std::string_view name, std::string_view value, bool number) {
    line += line.empty() ? '{' : ',';
    AppendJson(line, name);
    line += ':';
    if (number && IsNumber(value)) {
        line += value;
    } else {
        AppendJson(line, value);
    }
}

std::string BeginJson(std::int64_t time, std::string_view event) {
    std::string line;
    AddJson(line, "time", platform::UtcTimeTextMs(time), false);
    AddJson(line, "event", event, false);
    return line;
}

}  // namespace

LogEntry DescribeEvent(TagMsgNode* event, std::uint32_t word, LogFormat format) {
    const char* const level = LevelName(word);
    const std::string kind = KindName(word);
    const std::optional<std::int64_t> stamp = StampOfLate(event);
    const bool json = format == LogFormat::kJson;
    LogEntry entry{{}, std::string(level) + ' ' + kind};
    if (json) {
        entry.line =
            BeginJson(stamp ? *stamp * 1000 : platform::UtcMilliseconds(), LowerCase(kind));
        AddJson(entry.line, "level", level, false);
    }
    for (const FieldName& field : kFields) {
        const void* value = nullptr;
        if (TagMsgPeekAttr(event, field.tag, &value) != TAGMSG_OK || value == nullptr) continue;
        const auto* const text = static_cast<const char*>(value);
        entry.text.append(" ").append(field.name) += '=';
        AppendQuoted(entry.text, text);
        if (json) AddJson(entry.line, field.name, text, field.tag == TagNumberText);
    }
    if (stamp) entry.text += " posted=\"" + platform::UtcTimeText(*stamp) + '"';
    if (json) {
        entry.line += '}';
    } else {
        entry.line = platform::UtcTimeText() + ' ' + entry.text;
    }
    return entry;
}

LogEntry DescribeWarning(std::string_view message, LogFormat format) {
    LogEntry entry{{}, "high Warning message="};
    AppendQuoted(entry.text, message);
    if (format == LogFormat::kText) {
        entry.line = platform::UtcTimeText() + ' ' + entry.text;
        return entry;
    }
    entry.line = BeginJson(platform::UtcMilliseconds(), "warning");
    AddJson(entry.line, "level", "high", false);
    AddJson(entry.line, "message", message, false);
    entry.line += '}';
    return entry;
}

LogEntry DescribeLine(LogLineReader& reader, LogFormat format) {
    const char* const word = LogLineWord(reader.Kind());
    LogEntry entry{{}, std::string("event=") + word};
    const bool json = format == LogFormat::kJson;
    if (json) entry.line = BeginJson(reader.Time(), word);
    for (const LogLineField& field : LogLineFields(reader.Kind())) {
        const std::string_view value = reader.Value();
        entry.text.append(" ").append(field.name) += '=';
        AppendWord(entry.text, value);
        if (json) AddJson(entry.line, field.name, value, field.number);
    }
    if (json) {
        entry.line += '}';
    } else {
        entry.line = "time=" + platform::UtcTimeTextMs(reader.Time()) + ' ' + entry.text;
    }
    return entry;
}
