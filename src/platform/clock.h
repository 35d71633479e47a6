// The time of day, for people and logs.
#pragma once

#include <cstdint>
#include <string>

namespace platform {

// The present time as 2026-01-31T23:59:59Z (UTC).
std::string UtcTimeText();
// The same of a time in seconds since 1970.
std::string UtcTimeText(std::int64_t seconds);
// The same of a time in milliseconds since 1970, with them: 2026-01-31T23:59:59.123Z.
std::string UtcTimeTextMs(std::int64_t milliseconds);
// The present time in seconds since 1970.
std::int64_t UtcSeconds();
std::int64_t UtcMilliseconds();

}  // namespace platform
