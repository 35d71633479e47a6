// The written forms of a report.
#pragma once

#include <string>

#include "daemons/statd/report/query.h"

namespace stats {

// For a person at a terminal: aligned columns, LF.
std::string FormatText(const Report& report);
// RFC 4180, CR LF, one table: Section,Name,Event,Count,Bytes, a row for each number above zero. A
// text that a spreadsheet would take for a formula begins with "'".
std::string FormatCsv(const Report& report);
// For the statistics client's table reader: for each table the numbers of rows and columns, then
// the cells as words in double quotes, row by row; the first row holds the headings. A word has no
// quote, backslash or control character and 1 to 255 bytes: the reader has room for 511, drops
// empty words, and gives up at a row without any.
std::string FormatTables(const Report& report);
// A page of its own, without a script. nonce: of the style element, for a content security policy.
std::string FormatHtml(const Report& report, const std::string& nonce);

}  // namespace stats
