// Inside libstats/: statistics servers, by address, with the token that opens their reports.
#pragma once

#include <cstdint>

// The port of a server whose store names none.
inline constexpr int kStatsPort = 8484;
// The room for a token, its zero byte included.
inline constexpr std::size_t kTokenSize = 512;

// The first address of the host (a name or dotted text), as it stands in the resolver's answer; 0
// if the name is unknown or null. Any thread.
std::uint32_t ResolveAddress(const char* host);
