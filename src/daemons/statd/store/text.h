// Small texts of the statistics: domains, addresses, numbers.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace stats {

// The longest name in a list, in bytes.
inline constexpr std::size_t kNameLimit = 128;
// Stands for the names that a list has no room for.
inline constexpr char kOtherName[] = "(other)";

// What a list of domains shows for an address: the part behind the last '@', in small letters; "<>"
// for the empty sender, "(no domain)" for an address without one. Angle brackets don't matter.
std::string DomainOf(std::string_view address);
// The different domains of a ';'-joined list, at most `limit`.
std::vector<std::string> DomainsOf(std::string_view list, std::size_t limit);
// Dotted form of a host number whose lowest byte is the address's first.
std::string Dotted(std::int64_t host);

// The number with its thousands apart: 1 234 567 (thin for a reader, not for a program).
std::string Grouped(std::int64_t number, const char* separator);

}  // namespace stats
