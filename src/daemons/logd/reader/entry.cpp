#include "daemons/logd/reader/entry.h"

#include <algorithm>
#include <iterator>
#include <utility>

#include "daemons/logd/quote.h"
#include "daemons/logd/reader/times.h"
#include "logclient/line.h"
#include "text/ascii.h"

namespace {

constexpr std::string_view kTime = "time";
constexpr std::string_view kEvent = "event";
constexpr std::string_view kLevel = "level";

bool IsNumberField(std::string_view name) {
    const auto is = [name](const LogLineField& field) {
        return field.number && field.name == name;
    };
    return std::any_of(std::begin(kMessageLineFields), std::end(kMessageLineFields), is) ||
           std::any_of(std::begin(kSessionLineFields), std::end(kSessionLineFields), is);
}

std::string_view TakeWord(std::string_view& rest, char end) {
    const std::string_view word = rest.substr(0, rest.find(end));
    rest.remove_prefix(std::min(word.size() + 1, rest.size()));
    return word;
}

// What stands behind an opening quote, to the closing one.
bool TakeQuoted(std::string_view& rest, std::string& out) {
    while (!rest.empty()) {
        const char c = rest.front();
        rest.remove_prefix(1);
        if (c == '"') return true;
        if (c != '\\') {
            out += c;
            continue;
        }
        if (rest.empty()) return false;
        const bool hex =
            rest.size() > 2 && rest[0] == 'x' && HexDigit(rest[1]) >= 0 && HexDigit(rest[2]) >= 0;
        out += hex ? static_cast<char>(HexDigit(rest[1]) * 16 + HexDigit(rest[2])) : rest[0];
        rest.remove_prefix(hex ? 3 : 1);
    }
    return false;
}

// name=value name="value" ...
bool TakeFields(std::string_view rest, std::vector<LogField>& fields) {
    while (!rest.empty()) {
        if (rest.find('=') == std::string_view::npos) return false;
        LogField field{std::string(TakeWord(rest, '=')), {}, false};
        if (rest.starts_with('"')) {
            rest.remove_prefix(1);
            if (!TakeQuoted(rest, field.value)) return false;
            if (!rest.empty() && TakeWord(rest, ' ') != "") return false;
        } else {
            field.value = TakeWord(rest, ' ');
            field.number = IsNumberField(field.name);
        }
        fields.push_back(std::move(field));
    }
    return true;
}

// The first field, if it has this name, is taken out of them.
std::string TakeFirst(std::vector<LogField>& fields, std::string_view name) {
    if (fields.empty() || fields.front().name != name) return {};
    std::string value = std::move(fields.front().value);
    fields.erase(fields.begin());
    return value;
}

bool ParseText(std::string_view line, LogRecord& record) {
    if (line.starts_with("time=")) {
        if (!TakeFields(line, record.fields)) return false;
        record.time = TakeFirst(record.fields, kTime);
        record.event = TakeFirst(record.fields, kEvent);
        return true;
    }
    record.time = TakeWord(line, ' ');
    record.level = TakeWord(line, ' ');
    record.event = TakeWord(line, ' ');
    return TakeFields(line, record.fields);
}

bool ParseJson(std::string_view line, LogRecord& record) {
    auto fields = ParseJsonObject(line);
    if (!fields) return false;
    record.fields = std::move(*fields);
    record.time = TakeFirst(record.fields, kTime);
    record.event = TakeFirst(record.fields, kEvent);
    record.level = TakeFirst(record.fields, kLevel);
    return true;
}

void AddJson(std::string& line, std::string_view name, std::string_view value, bool number) {
    line += line.empty() ? '{' : ',';
    AppendJson(line, name);
    line += ':';
    if (number) {
        line += value;
    } else {
        AppendJson(line, value);
    }
}

}  // namespace

const std::string* LogRecord::Find(std::string_view name) const {
    for (const LogField& field : fields) {
        if (field.name == name) return &field.value;
    }
    return nullptr;
}

std::optional<LogRecord> ParseRecord(std::string_view line) {
    LogRecord record;
    if (!(line.starts_with('{') ? ParseJson(line, record) : ParseText(line, record)))
        return std::nullopt;
    const std::optional<std::int64_t> at = ParseMoment(record.time);
    if (!at || record.event.empty()) return std::nullopt;
    record.at = *at;
    return record;
}

std::string RecordAsText(const LogRecord& record) {
    std::string line;
    const bool plain = record.level.empty();  // a session or message
    if (plain) {
        line.append("time=").append(record.time).append(" event=").append(record.event);
    } else {
        line.append(record.time).append(" ").append(record.level).append(" ").append(record.event);
    }
    for (const LogField& field : record.fields) {
        line.append(" ").append(field.name) += '=';
        if (plain) {
            AppendWord(line, field.value);
        } else {
            AppendQuoted(line, field.value);
        }
    }
    return line;
}

std::string RecordAsJson(const LogRecord& record) {
    std::string line;
    AddJson(line, kTime, record.time, false);
    AddJson(line, kEvent, LowerCase(record.event), false);
    if (!record.level.empty()) AddJson(line, kLevel, record.level, false);
    for (const LogField& field : record.fields)
        AddJson(line, field.name, field.value, field.number);
    return line += '}';
}
