#include "trelis/keys/size.h"

#include <charconv>
#include <limits>

std::optional<long long> ParseSize(std::string_view text) {
    long long number = 0;
    const char* const end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data(), end, number);
    if (error != std::errc() || number < 0) return std::nullopt;
    std::string_view unit(rest, static_cast<std::size_t>(end - rest));
    while (unit.starts_with(' ')) unit.remove_prefix(1);
    if (unit.empty()) return number;
    constexpr std::string_view kUnits = "KkMmGg";
    const std::size_t which = kUnits.find(unit[0]);
    unit.remove_prefix(1);
    if (which == std::string_view::npos || (!unit.empty() && unit != "B" && unit != "b"))
        return std::nullopt;
    const auto shift = static_cast<int>(10 * (which / 2 + 1));
    if (number > std::numeric_limits<long long>::max() >> shift) return std::nullopt;
    return number << shift;
}
