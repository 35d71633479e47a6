// The time of day, for people and logs.
#pragma once

#include <string>

namespace platform {

// The present time as 2026-01-31T23:59:59Z (UTC).
std::string UtcTimeText();

}  // namespace platform
