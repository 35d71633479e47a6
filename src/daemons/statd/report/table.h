// A report as tables of texts, the form that all but one of the written forms start from.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "daemons/statd/report/query.h"

namespace stats {

// The first column holds names, the others numbers.
struct Table {
    std::string title;
    std::vector<std::string> headings;
    std::vector<std::vector<std::string>> rows;  // each as long as headings
};

// Events by code, then by day, by peer, by sender domain, by recipient domain and by signature.
std::vector<Table> MakeTables(const Report& report);
// What a report calls an event code: "Clean", or "Event 4711" where it is not known.
std::string CodeName(std::int64_t code);
// "2026-07-01 to 2026-07-31"
std::string PeriodText(const Report& report);
// Safe between tags and inside a quoted attribute.
std::string EscapeHtml(std::string_view text);

}  // namespace stats
