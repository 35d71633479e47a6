// Days of the calendar, as numbers and as people write them.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

inline constexpr std::int64_t kDaySeconds = 86400;
inline constexpr std::int64_t kHourSeconds = 3600;

// Days and hours are counted from 1970-01-01, UTC. A floor also for times before it.
std::int64_t DayOf(std::int64_t seconds);
std::int64_t HourOf(std::int64_t seconds);
// YYYY-MM-DD, and its strict reading: years 1970 to 9999, a day that exists.
std::string FormatDay(std::int64_t day);
std::optional<std::int64_t> ParseDay(std::string_view text);
// YYYY-MM-DD HH:MM:SS
std::string FormatTime(std::int64_t seconds);
