#include "daemons/statd/store/text.h"

#include <algorithm>
#include <charconv>
#include <chrono>
#include <cstdio>

#include "text/printable.h"

namespace stats {
namespace {

std::string_view Trimmed(std::string_view text) {
    constexpr std::string_view kBlank = " \t\r\n";
    const std::size_t from = text.find_first_not_of(kBlank);
    if (from == std::string_view::npos) return {};
    return text.substr(from, text.find_last_not_of(kBlank) - from + 1);
}

std::int64_t Floor(std::int64_t seconds, std::int64_t unit) {
    return seconds / unit - (seconds % unit < 0 ? 1 : 0);
}

}  // namespace

std::string CleanText(std::string_view text, std::size_t limit) {
    std::string out;
    while (!text.empty()) {
        const std::size_t length = PrintableLength(text);
        const std::size_t taken = std::max<std::size_t>(length, 1);
        if (out.size() + taken > limit) break;
        if (length == 0) {
            out += '?';
        } else {
            out += text.substr(0, length);
        }
        text.remove_prefix(taken);
    }
    return out;
}

std::string DomainOf(std::string_view address) {
    address = Trimmed(address);
    if (!address.empty() && address.front() == '<') {
        address.remove_prefix(1);
        address = address.substr(0, address.rfind('>'));
    }
    address = Trimmed(address);
    if (address.empty()) return "<>";
    const std::size_t at = address.rfind('@');
    std::string domain =
        at == std::string_view::npos ? "" : CleanText(address.substr(at + 1), kNameLimit);
    while (!domain.empty() && domain.back() == '.') domain.pop_back();
    if (domain.empty()) return "(no domain)";
    for (char& c : domain) {
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    }
    return domain;
}

std::vector<std::string> DomainsOf(std::string_view list, std::size_t limit) {
    std::vector<std::string> domains;
    while (!list.empty() && domains.size() < limit) {
        const std::size_t end = list.find(';');
        const std::string_view item = Trimmed(list.substr(0, end));
        list.remove_prefix(end == std::string_view::npos ? list.size() : end + 1);
        if (item.empty()) continue;
        std::string domain = DomainOf(item);
        if (std::find(domains.begin(), domains.end(), domain) == domains.end())
            domains.push_back(std::move(domain));
    }
    return domains;
}

std::string Dotted(std::int64_t host) {
    std::string text;
    for (int shift = 0; shift < 32; shift += 8) {
        if (shift != 0) text += '.';
        text += std::to_string((host >> shift) & 0xFF);
    }
    return text;
}

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

std::int64_t Now() {
    return std::chrono::duration_cast<std::chrono::seconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

std::string Grouped(std::int64_t number, const char* separator) {
    std::string digits = std::to_string(number);
    for (std::size_t at = digits.size(); at > 3 && digits[at - 4] != '-';) {
        at -= 3;
        digits.insert(at, separator);
    }
    return digits;
}

}  // namespace stats
