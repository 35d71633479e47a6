// Sizes and durations as people write them in the configuration.
#pragma once

#include <optional>
#include <string_view>

// Bytes, from a number with or without a unit behind it: K, M or G (1024 of the one before), in any
// case, a B behind that left alone: "25M", "512kb", "26214400". Nothing for any other text, and for
// more than fits.
std::optional<long long> ParseSize(std::string_view text);
// Seconds, from a number with a unit behind it, in any case: s, m, h, d or w. Nothing as above.
std::optional<long long> ParseDuration(std::string_view text);
