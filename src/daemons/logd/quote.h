// Values of fields as they stand in the log. Most are strangers' texts: neither a line end nor a
// quote of one may look like one of ours, and no control reaches who reads the log in a terminal.
#pragma once

#include <string>
#include <string_view>

// "text", with \" and \\, and \xHH for a byte that is no printable text.
void AppendQuoted(std::string& line, std::string_view text);
// The text itself where it is one word of ASCII that needs no quotes.
void AppendWord(std::string& line, std::string_view text);
// A string of JSON. Controls are \u00HH; bytes that are no UTF-8 stand in it as the text \xHH.
void AppendJson(std::string& line, std::string_view text);
