// Inside outward/: a message on its way out, straight to the server behind the proxy.
#pragma once

#include <optional>
#include <string>

#include "daemons/quarantine/outward/smtp.h"
#include "daemons/quarantine/outward/trace.h"
#include "daemons/quarantine/quarantine.h"

// Where an interface hands mail on, by the store, which is open; the first one if the name is
// empty. Nothing, with the reason: there is no such interface, or it names no server.
std::optional<Destination> DestinationOf(const std::string& interface, std::string& complaint);

enum class Released {
    kYes,
    kNo,
    kOnce  // the server has it, or may have it: only `again` sends it once more
};

// Sends the message once: the state is `releasing` from before the first byte, and `released` once
// the server has it. A refusal puts the state back; where the server had all of it and didn't
// answer, nobody can know, and it stays. `to`: instead of the envelope's recipients.
// `said` is the server's word, or what failed; printable. The log has it.
Released Release(quarantine::Quarantine& store, const std::string& id, const std::string& to,
                 bool again, const Destination& destination, const Actor& actor, std::string& said);
// Deletes it. The log has that, and a failure unless there is no such message.
bool Delete(quarantine::Quarantine& store, const std::string& id, const Actor& actor,
            std::string& complaint);
