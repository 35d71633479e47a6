// What the log tells of a session and of each of its messages: values, filled in by the phases
// through the Journal (journal.h), which also says when one is whole.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "logclient/line.h"

// Words of SessionRecord::ended.
inline constexpr std::string_view kEndedQuit = "quit";      // the client has said so
inline constexpr std::string_view kEndedDenied = "denied";  // by the list of addresses
inline constexpr std::string_view kEndedOutage = "outage";  // there was no server for it
inline constexpr std::string_view kEndedStop = "stop";      // of the service
inline constexpr std::string_view kEndedLost = "lost";      // in any other way

// One client connection. Texts are a stranger's where the client has said them.
struct SessionRecord {
    std::string id;      // letters and digits; no other session of any process has it
    std::string peer;    // the client's address
    std::string toldBy;  // the connection's own one, if somebody trusted has told of the client
    std::string helo;    // what the client calls itself
    std::string tls;     // protocol and cipher; empty: plain
    unsigned messages = 0;
    std::string_view ended = kEndedLost;
    std::int64_t durationMs = 0;
};

// One message, from its first byte to the reply that its client got.
struct MessageRecord {
    std::string id;         // the session's, '-', and its number there, from 1 on
    std::string from;       // the sender, normalised
    std::string to;         // the recipients, joined by ';'; ends in "..." if there are more
    long long size = 0;     // bytes as stored; of one that wasn't stored, what had come
    std::string_view via;   // "data" or "bdat"
    std::string messageId;  // the value of its header field
    std::string_view verdict = kVerdictNone;  // as logclient/line.h has them
    std::string_view section;                 // of the scan, that has a finding: "antivirus"
    std::string reason;                       // what it has found
    std::string reply;    // the last one that the client got for it, in one line
    std::string queueId;  // the server's, if its last reply names one
    std::int64_t receptionMs = 0;
    std::int64_t scanMs = 0;
    std::int64_t relayMs = 0;  // from the verdict to the reply

    // As new, but the texts keep their memory.
    void Clear();
};

// Made without asking the system for anything: 7 characters for the second, 7 that no other session
// of this process has. Any thread.
std::string NewSessionId();
// The id that a server's last reply gives the message that it has accepted, as Postfix, Exim,
// sendmail and Exchange write it; empty if there is none. A view into the reply.
std::string_view QueueIdIn(std::string_view reply);
