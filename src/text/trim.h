// Text without the blanks at its ends, and its words between them.
#pragma once

#include <algorithm>
#include <string_view>

// blanks: the characters that count as such. A part of `text`; empty if there is nothing else.
inline std::string_view Trimmed(std::string_view text, std::string_view blanks = " \t") {
    const std::size_t begin = text.find_first_not_of(blanks);
    if (begin == std::string_view::npos) return {};
    return text.substr(begin, text.find_last_not_of(blanks) + 1 - begin);
}

// All that C takes for blanks.
inline constexpr std::string_view kAllBlanks = " \t\v\f\r\n";

// Takes the first word of the rest, and all in front of it. Empty if there is none left.
inline std::string_view TakeWord(std::string_view& rest) {
    rest.remove_prefix(std::min(rest.find_first_not_of(kAllBlanks), rest.size()));
    const std::string_view word = rest.substr(0, rest.find_first_of(kAllBlanks));
    rest.remove_prefix(word.size());
    return word;
}
