// actions/: what was decided, done to the stored message before the proxy hears of it. Tags and
// removals change the file in the spool (tags.h, notice.h, edits.h); what is held back, or loses a
// part, goes to the quarantine (daemons/quarantine). Rejections, drops and redirections are the
// answer's alone (reply.h).
//
// This header: from findings to what has been done.
#pragma once

#include <string>
#include <vector>

#include "daemons/maild/actions/partmap.h"
#include "daemons/maild/forms/forms.h"
#include "daemons/maild/verdict/finding.h"
#include "daemons/quarantine/quarantine.h"

namespace maild {

// The message that the proxy asks about.
struct Stored {
    std::string path;
    Transfer transfer = Transfer::kUnknown;
    std::string sender;
    std::string recipients;  // joined by ';'
    std::string peer;
    std::string helo{};
    std::string logId{};
};

// Before Decide: a part that can't be taken out, because it is the whole message, signed,
// encrypted, not in the file as it is, or not known, is held back with its message.
void HoldBackWhatStays(std::vector<Finding>& findings, const PartMap& parts, Transfer transfer);

struct Done {
    bool good = true;      // false: nothing has come of it, and the message is put off
    std::string why;       // if not
    std::string keptAs{};  // its id in the quarantine, if it is there
};
// Any thread; one for a message. On failure the stored message is as it was, or its successor.
Done Perform(const Stored& message, const std::vector<Finding>& findings, const Decision& decision,
             const PartMap& parts, quarantine::Quarantine& store, const quarantine::Limits& limits);

}  // namespace maild
