// reader/: the log as it is read again, by vtlog and by the page.
//
// This header: one line of the log as vtlogd writes it, in either format, taken apart and put
// together again in either.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

struct LogField {
    std::string name;
    std::string value;
    bool number = false;  // written without quotes in JSON
};

struct LogRecord {
    std::string time;     // as it stands in the line
    std::int64_t at = 0;  // the same in milliseconds since 1970
    // "session", "message", or the kind of an event; of a line of text with its capitals.
    std::string event;
    std::string level;             // of an event; empty for sessions and messages
    std::vector<LogField> fields;  // the rest, in order

    // Null if there is none.
    const std::string* Find(std::string_view name) const;
};

// Nothing if the line, which has no line end, is none of vtlogd's. Throws nothing but
// std::bad_alloc, whatever the line is.
std::optional<LogRecord> ParseRecord(std::string_view line);
// Without a line end.
std::string RecordAsText(const LogRecord& record);
std::string RecordAsJson(const LogRecord& record);

// Inside reader/: the fields of one flat object, all of it. Strings and whole numbers; nothing else
// is in a line.
std::optional<std::vector<LogField>> ParseJsonObject(std::string_view text);
