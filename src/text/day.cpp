#include "text/day.h"

#include <charconv>
#include <chrono>
#include <cstdio>

namespace {

std::int64_t Floor(std::int64_t seconds, std::int64_t unit) {
    return seconds / unit - (seconds % unit < 0 ? 1 : 0);
}

}  // namespace

std::int64_t DayOf(std::int64_t seconds) { return Floor(seconds, kDaySeconds); }
std::int64_t HourOf(std::int64_t seconds) { return Floor(seconds, kHourSeconds); }

std::string FormatDay(std::int64_t day) {
    const std::chrono::year_month_day date{
        std::chrono::sys_days(std::chrono::days(static_cast<int>(day)))};
    char text[48];
    std::snprintf(text, sizeof text, "%04d-%02u-%02u", static_cast<int>(date.year()),
                  static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()));
    return text;
}

std::optional<std::int64_t> ParseDay(std::string_view text) {
    if (text.size() != 10 || text[4] != '-' || text[7] != '-') return std::nullopt;
    const auto number = [&](std::size_t from, std::size_t count) -> int {
        int value = -1;
        const char* const end = text.data() + from + count;
        const auto [stop, error] = std::from_chars(text.data() + from, end, value);
        return error == std::errc() && stop == end ? value : -1;
    };
    const int year = number(0, 4);
    const int month = number(5, 2);
    const int day = number(8, 2);
    if (year < 1970 || month < 1 || day < 1) return std::nullopt;
    const std::chrono::year_month_day date{std::chrono::year(year),
                                           std::chrono::month(static_cast<unsigned>(month)),
                                           std::chrono::day(static_cast<unsigned>(day))};
    if (!date.ok()) return std::nullopt;
    return std::chrono::sys_days(date).time_since_epoch().count();
}

std::string FormatTime(std::int64_t seconds) {
    const std::int64_t day = DayOf(seconds);
    const auto rest = static_cast<int>(seconds - day * kDaySeconds);
    char text[32];
    std::snprintf(text, sizeof text, " %02d:%02d:%02d", rest / 3600, rest / 60 % 60, rest % 60);
    return FormatDay(day) + text;
}
