// The lines of the log: one for an event, or for a session or message, in either format.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "logclient/line.h"
#include "tagmsg/tagmsg.h"

// In the order of the words of the key Format.
enum class LogFormat { kText, kJson };

// A line in the file's format, without its end, and what of it goes to the system's log: the text,
// without the time, which that has itself.
struct LogEntry {
    std::string line;
    std::string text;
};

LogEntry DescribeEvent(TagMsgNode* event, std::uint32_t word, LogFormat format);
// An event of the daemon's own.
LogEntry DescribeWarning(std::string_view message, LogFormat format);
// The reader stands in front of the line's fields.
LogEntry DescribeLine(LogLineReader& reader, LogFormat format);
