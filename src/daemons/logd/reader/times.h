// Moments as the log and people write them, in milliseconds since 1970.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

// YYYY-MM-DD, with THH:MM, THH:MM:SS and a fraction behind it, and a Z or none: UTC. A blank may
// stand for the T.
std::optional<std::int64_t> ParseMoment(std::string_view text);
// The same, or how long ago it was: a number with s, m, h, d or w.
std::optional<std::int64_t> ParseWhen(std::string_view text, std::int64_t now);
