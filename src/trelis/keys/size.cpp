#include "trelis/keys/size.h"

#include <charconv>
#include <limits>

#include "text/ascii.h"

namespace {

struct Quantity {
    long long number;
    std::string_view unit;
};

std::optional<Quantity> ParseQuantity(std::string_view text) {
    long long number = 0;
    const char* const end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data(), end, number);
    if (error != std::errc() || number < 0) return std::nullopt;
    std::string_view unit(rest, static_cast<std::size_t>(end - rest));
    while (unit.starts_with(' ')) unit.remove_prefix(1);
    return Quantity{number, unit};
}

}  // namespace

std::optional<long long> ParseSize(std::string_view text) {
    const std::optional<Quantity> read = ParseQuantity(text);
    if (!read) return std::nullopt;
    auto [number, unit] = *read;
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

std::optional<long long> ParseDuration(std::string_view text) {
    const std::optional<Quantity> read = ParseQuantity(text);
    if (!read || read->unit.size() != 1) return std::nullopt;
    constexpr std::string_view kUnits = "smhdw";
    constexpr long long kSeconds[] = {1, 60, 3600, 86400, 604800};
    const std::size_t which = kUnits.find(FoldCase(read->unit[0]));
    if (which == std::string_view::npos) return std::nullopt;
    if (read->number > std::numeric_limits<long long>::max() / kSeconds[which]) return std::nullopt;
    return read->number * kSeconds[which];
}
