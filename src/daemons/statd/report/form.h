// The form by which a client asks for a report.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace stats {

enum class ReportFormat { kHtml = 1, kText = 2, kCsv = 3, kTables = 4 };

struct ReportRequest {
    ReportFormat format = ReportFormat::kText;
    std::int64_t firstDay = 0;
    std::int64_t lastDay = 0;  // inclusive
};

// Days that a report covers when the form doesn't say.
inline constexpr std::int64_t kDefaultDays = 30;

// Reads the body of a request of the type application/x-www-form-urlencoded. Fields:
//   request_type    1 the usual report (txt), 2 in the format request_format, 3 as tables
//   request_format  1 html, 2 txt, 3 csv; read for type 2 only
//   time_period     0 the days that are given, 1 today, 2 the last 7 days, 3 the last 30 days
//   date_start, date_end   YYYY-MM-DD, UTC, both inclusive; empty: 30 days up to the other, or to
//                   today
//   request_id, agent_id   numbers of the asker's; they choose nothing
// A field that is missing is empty, or 0; others are not looked at. Nothing if anything else is
// wrong: `why` says what.
std::optional<ReportRequest> ParseReportForm(std::string_view body, std::int64_t today,
                                             std::string& why);

}  // namespace stats
