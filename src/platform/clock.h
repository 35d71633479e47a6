// The time of day, for people and logs, and times for limits.
#pragma once

#include <chrono>
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

// The time of std::chrono::steady_clock as of the system's last tick: some milliseconds old, and
// had for a small part of what the clock costs. For limits that nobody sets to the millisecond.
std::chrono::steady_clock::time_point LastTick();
// When a time that begins now is over, by the same: never too early, a tick or two late. Of no
// time: now.
std::chrono::steady_clock::time_point TickBehind(std::chrono::milliseconds time);

}  // namespace platform
