// The line of the log for one session, one message, or what a person has done with a message in the
// quarantine, as it goes to vtlogd: the names and the order of its fields, which are those of the
// log, and its form on the way.
//
// Form: 's', 'm' or 'k' (session, message, one that was kept), the time in milliseconds since 1970,
// then each of the kind's fields behind a 0x1F, and 0x1E at the end. An event holds any number of
// lines. Bytes of a value that would be one of these, or zero, are '?'.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

// The TagInfoText of an event whose TagMessage is such lines. No person's text looks like it.
inline constexpr char kLogLinesMark[] = "\x1Fvantrel.lines.1";

// Words of the field `verdict`.
inline constexpr std::string_view kVerdictForward = "forward";
inline constexpr std::string_view kVerdictReject = "reject";
inline constexpr std::string_view kVerdictDrop = "drop";
inline constexpr std::string_view kVerdictFailed = "failed";
inline constexpr std::string_view kVerdictNone = "none";  // it never got to a scan

struct LogLineField {
    const char* name;
    bool number = false;
};

// Behind `time` and `event`.
inline constexpr LogLineField kMessageLineFields[] = {
    {"session"},
    {"id"},
    {"peer"},
    {"told_by"},
    {"helo"},
    {"tls"},
    {"from"},
    {"to"},
    {"size", true},
    {"via"},
    {"message_id"},
    {"verdict"},
    {"section"},
    {"reason"},
    {"reply"},
    {"queue_id"},
    {"reception_ms", true},
    {"scan_ms", true},
    {"relay_ms", true},
};
inline constexpr LogLineField kSessionLineFields[] = {
    {"session"}, {"peer"},           {"told_by"}, {"helo"},
    {"tls"},     {"messages", true}, {"ended"},   {"duration_ms", true},
};
inline constexpr LogLineField kQuarantineLineFields[] = {
    {"id"}, {"log_id"}, {"act"}, {"result"}, {"by"}, {"through"}, {"from"}, {"to"}, {"reply"},
};

enum class LogLineKind { kSession, kMessage, kQuarantine };
// "session", "message" or "quarantine".
const char* LogLineWord(LogLineKind kind);
std::span<const LogLineField> LogLineFields(LogLineKind kind);

// Writes one line; all of the kind's fields, in their order, then End.
class LogLineWriter {
  public:
    // Behind what `out` holds. time: milliseconds since 1970.
    LogLineWriter(std::string& out, LogLineKind kind, std::int64_t time);
    void Text(std::string_view value);
    void Number(std::int64_t value);
    void End();

  private:
    std::string& out_;
};

// Reads one line.
class LogLineReader {
  public:
    // The next line of an event's lines, which is taken off them. False: there is none, or it can't
    // be read and stays.
    bool Next(std::string_view& lines);
    LogLineKind Kind() const { return kind_; }
    std::int64_t Time() const { return time_; }
    // The next field's value; empty behind the last one.
    std::string_view Value();

  private:
    LogLineKind kind_ = LogLineKind::kSession;
    std::int64_t time_ = 0;
    std::string_view rest_;
};
