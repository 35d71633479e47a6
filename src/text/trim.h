// Text without the blanks at its ends.
#pragma once

#include <string_view>

// blanks: the characters that count as such. A part of `text`; empty if there is nothing else.
inline std::string_view Trimmed(std::string_view text, std::string_view blanks = " \t") {
    const std::size_t begin = text.find_first_not_of(blanks);
    if (begin == std::string_view::npos) return {};
    return text.substr(begin, text.find_last_not_of(blanks) + 1 - begin);
}
