// Inside antispam/: rspamd's normal worker: POST /checkv2 with the message, which answers with one
// JSON object:
//
//   {"is_skipped": false, "score": 7.3, "required_score": 6.0, "action": "add header",
//    "symbols": {"NAME": {...}, ...},
//    "milter": {"add_headers": {"X-Name": "text" | {"value": "text"} | [...]}}}
#pragma once

#include "daemons/maild/antispam/opinion.h"
#include "daemons/maild/engine/connection.h"

namespace maild {

// On an open connection whose end of time is set.
SpamOpinion AskRspamd(Connection& connection, const SpamQuestion& question);
// The body of an answer: bounded by the caller, of any content.
SpamOpinion ReadRspamd(std::string_view json);
// What stands in front of the message.
std::string RspamdRequest(const SpamQuestion& question);

}  // namespace maild
