#include "daemons/statd/report/form.h"

#include <charconv>
#include <map>

#include "daemons/statd/store/text.h"
#include "text/ascii.h"
#include "text/day.h"
#include "text/printable.h"

namespace stats {
namespace {

using Fields = std::map<std::string, std::string, std::less<>>;

bool Decode(std::string_view text, std::string& out) {
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '%') {
            out += text[i] == '+' ? ' ' : text[i];
            continue;
        }
        if (text.size() - i < 3) return false;
        const int high = HexDigit(text[i + 1]);
        const int low = HexDigit(text[i + 2]);
        if (high < 0 || low < 0) return false;
        out += static_cast<char>(high * 16 + low);
        i += 2;
    }
    return true;
}

bool Split(std::string_view body, Fields& fields, std::string& why) {
    while (!body.empty()) {
        const std::size_t end = body.find('&');
        const std::string_view item = body.substr(0, end);
        body.remove_prefix(end == std::string_view::npos ? body.size() : end + 1);
        const std::size_t equals = item.find('=');
        std::string name;
        std::string value;
        if (equals == std::string_view::npos || !Decode(item.substr(0, equals), name) ||
            !Decode(item.substr(equals + 1), value)) {
            why = "not a form";
            return false;
        }
        if (!fields.emplace(name, value).second) {
            why = "a field comes twice: " + CleanText(name, 40);
            return false;
        }
    }
    return true;
}

std::string Text(const Fields& fields, const char* name) {
    const auto found = fields.find(name);
    return found == fields.end() ? "" : found->second;
}

// Empty counts as 0.
bool ReadNumber(const Fields& fields, const char* name, int least, int most, int& number,
                std::string& why) {
    const std::string text = Text(fields, name);
    number = 0;
    const char* const end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, number);
    const bool good = text.empty() || (error == std::errc() && stop == end);
    if (good && number >= least && number <= most) return true;
    why = std::string(name) + " is wrong";
    return false;
}

bool ReadDay(const Fields& fields, const char* name, std::int64_t fallback, std::int64_t& day,
             std::string& why) {
    const std::string text = Text(fields, name);
    const auto parsed = ParseDay(text);
    day = parsed.value_or(fallback);
    if (text.empty() || parsed) return true;
    why = std::string(name) + " is no day (YYYY-MM-DD)";
    return false;
}

bool ReadPeriod(const Fields& fields, std::int64_t today, ReportRequest& request,
                std::string& why) {
    constexpr std::int64_t kPeriods[] = {0, 1, 7, 30};
    int period = 0;
    if (!ReadNumber(fields, "time_period", 0, 3, period, why)) return false;
    if (!ReadDay(fields, "date_end", today, request.lastDay, why) ||
        !ReadDay(fields, "date_start", request.lastDay - kDefaultDays + 1, request.firstDay, why))
        return false;
    if (period != 0) {
        request.lastDay = today;
        request.firstDay = today - kPeriods[period] + 1;
    }
    if (request.firstDay <= request.lastDay) return true;
    why = "date_start lies behind date_end";
    return false;
}

}  // namespace

std::optional<ReportRequest> ParseReportForm(std::string_view body, std::int64_t today,
                                             std::string& why) {
    constexpr int kAny = 0x7FFFFFFF;
    Fields fields;
    ReportRequest request;
    int type = 0;
    int format = 0;
    int ignored = 0;
    if (!Split(body, fields, why) || !ReadNumber(fields, "request_type", 1, 3, type, why) ||
        !ReadNumber(fields, "request_format", type == 2 ? 1 : -kAny, type == 2 ? 3 : kAny, format,
                    why) ||
        !ReadNumber(fields, "request_id", -kAny - 1, kAny, ignored, why) ||
        !ReadNumber(fields, "agent_id", -kAny - 1, kAny, ignored, why) ||
        !ReadPeriod(fields, today, request, why))
        return std::nullopt;
    if (type == 2) request.format = static_cast<ReportFormat>(format);
    if (type == 3) request.format = ReportFormat::kTables;
    return request;
}

}  // namespace stats
