// What of the log a person wants to see.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "daemons/logd/reader/entry.h"
#include "net/address.h"

// Nothing, or empty: anything. All that is given must be in the line and fit.
struct LogFilter {
    std::string from;  // without regard to case; @DOMAIN: any of that domain
    std::string to;    // the same, one of the recipients
    // Without regard to case: of a message, in the quarantine, or of a session: it and its
    // messages.
    std::string id;
    std::string verdict;
    std::optional<IpNetwork> peer;
    std::optional<std::int64_t> since;  // as LogRecord::at; included
    std::optional<std::int64_t> until;  // not included

    bool Fits(const LogRecord& record) const;
};
