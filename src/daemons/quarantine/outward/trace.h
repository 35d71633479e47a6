// Inside outward/: what a person does with a message, in the log: one line of the kind
// `quarantine`.
#pragma once

#include <string>

#include "daemons/quarantine/kept.h"

// Who it is.
struct Actor {
    std::string name;     // of the account, or of the person behind the process
    const char* through;  // by what: "page", "vtquarantine"
};

// Posted; never waits for vtlogd. `to`: instead of the envelope's recipients. `said`: the server's
// last reply, or why it failed.
void LogAct(const quarantine::KeptMessage& message, const char* act, const Actor& actor,
            const std::string& to, bool done, const std::string& said);
