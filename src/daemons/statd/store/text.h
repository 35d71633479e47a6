// Small texts of the statistics: domains, addresses, days.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace stats {

inline constexpr std::int64_t kDaySeconds = 86400;
inline constexpr std::int64_t kHourSeconds = 3600;
// The longest name in a list, in bytes.
inline constexpr std::size_t kNameLimit = 128;
// Stands for the names that a list has no room for.
inline constexpr char kOtherName[] = "(other)";

// The text without control characters and broken UTF-8 ('?' in their place), cut to limit bytes at
// a character's boundary.
std::string CleanText(std::string_view text, std::size_t limit);
// What a list of domains shows for an address: the part behind the last '@', in small letters; "<>"
// for the empty sender, "(no domain)" for an address without one. Angle brackets don't matter.
std::string DomainOf(std::string_view address);
// The different domains of a ';'-joined list, at most `limit`.
std::vector<std::string> DomainsOf(std::string_view list, std::size_t limit);
// Dotted form of a host number whose lowest byte is the address's first.
std::string Dotted(std::int64_t host);

// Days and hours are counted from 1970-01-01, UTC. A floor also for times before it.
std::int64_t DayOf(std::int64_t seconds);
std::int64_t HourOf(std::int64_t seconds);
// YYYY-MM-DD, and its strict reading: years 1970 to 9999, a day that exists.
std::string FormatDay(std::int64_t day);
std::optional<std::int64_t> ParseDay(std::string_view text);
// YYYY-MM-DD HH:MM:SS
std::string FormatTime(std::int64_t seconds);
// Now, in UTC seconds.
std::int64_t Now();

// The number with its thousands apart: 1 234 567 (thin for a reader, not for a program).
std::string Grouped(std::int64_t number, const char* separator);

}  // namespace stats
