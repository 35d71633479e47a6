#include "daemons/logd/reader/times.h"

#include <charconv>

#include "text/ascii.h"
#include "text/day.h"

namespace {

constexpr std::size_t kDayLength = 10;
constexpr std::int64_t kMostAgo = 100000;  // of any unit

// Two digits below `most` at the start of the text, taken off it; -1 if they aren't there.
int TakePair(std::string_view& text, char in_front, int most) {
    if (text.size() < 3 || text[0] != in_front || !IsDigit(text[1]) || !IsDigit(text[2])) return -1;
    const int number = (text[1] - '0') * 10 + (text[2] - '0');
    text.remove_prefix(3);
    return number < most ? number : -1;
}

// .123, as many digits as there are; the rest of the text has to be that.
int Thousandths(std::string_view text) {
    if (text.empty()) return 0;
    if (text.size() < 2 || text[0] != '.') return -1;
    int value = 0;
    for (std::size_t i = 1; i < text.size(); ++i) {
        if (!IsDigit(text[i])) return -1;
        if (i <= 3) value = value * 10 + (text[i] - '0');
    }
    for (std::size_t i = text.size(); i <= 3; ++i) value *= 10;
    return value;
}

}  // namespace

std::optional<std::int64_t> ParseMoment(std::string_view text) {
    const std::optional<std::int64_t> day = ParseDay(text.substr(0, kDayLength));
    if (!day) return std::nullopt;
    std::int64_t seconds = *day * kDaySeconds;
    text.remove_prefix(kDayLength);
    if (text.empty()) return seconds * 1000;
    if (text.ends_with('Z')) text.remove_suffix(1);
    const int hour = TakePair(text, text.starts_with(' ') ? ' ' : 'T', 24);
    const int minute = TakePair(text, ':', 60);
    if (hour < 0 || minute < 0) return std::nullopt;
    seconds += hour * kHourSeconds + minute * std::int64_t{60};
    if (text.empty()) return seconds * 1000;
    const int second = TakePair(text, ':', 61);
    const int thousandths = Thousandths(text);
    if (second < 0 || thousandths < 0) return std::nullopt;
    return (seconds + second) * 1000 + thousandths;
}

std::optional<std::int64_t> ParseWhen(std::string_view text, std::int64_t now) {
    constexpr struct {
        char letter;
        std::int64_t seconds;
    } kUnits[] = {
        {'s', 1}, {'m', 60}, {'h', kHourSeconds}, {'d', kDaySeconds}, {'w', 7 * kDaySeconds}};
    std::int64_t number = 0;
    const char* const end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data(), end, number);
    if (error == std::errc() && rest + 1 == end && number >= 0 && number <= kMostAgo) {
        for (const auto& unit : kUnits) {
            if (*rest == unit.letter) return now - number * unit.seconds * 1000;
        }
    }
    return ParseMoment(text);
}
