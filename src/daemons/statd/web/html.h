// What the HTML pages share: their frame and their style.
#pragma once

#include <string>

#include "daemons/statd/report/table.h"

namespace stats {

// The page around a body. script: inside a script element, empty for none.
std::string HtmlPage(const std::string& title, const std::string& nonce, const std::string& body,
                     const std::string& script);
// A table with its title; numbers have their thousands apart. Wide tables scroll in their frame.
std::string HtmlTable(const Table& table);

}  // namespace stats
