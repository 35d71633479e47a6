// The time of day, for people and logs.
#pragma once

#include <cstdint>
#include <string>

namespace platform {

// The present time as 2026-01-31T23:59:59Z (UTC).
std::string UtcTimeText();
// The same of a time in seconds since 1970.
std::string UtcTimeText(std::int64_t seconds);
// The present time in seconds since 1970.
std::int64_t UtcSeconds();

}  // namespace platform
