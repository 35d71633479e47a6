// What can be said of a server's certificate before anybody sees it.
#pragma once

#include <optional>
#include <string>

#include "tls/identity.h"

struct TlsInspection {
    std::string complaint;  // why it can't be used; printable, one line; empty: it can
    // Whole days until the first certificate of its file expires; negative once it has. None if it
    // can't be used.
    std::optional<long long> daysLeft;
};
TlsInspection InspectIdentity(const TlsIdentitySettings& settings);
