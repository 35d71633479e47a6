// text/: what every folder needs of text, and nothing that knows a system. Case and classes of
// characters here are ASCII's alone, so that nothing hangs on the locale of the process.
#pragma once

#include <algorithm>
#include <string>
#include <string_view>

constexpr char FoldCase(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; }
constexpr bool IsDigit(char c) { return c >= '0' && c <= '9'; }
constexpr bool IsLetter(char c) { return FoldCase(c) >= 'a' && FoldCase(c) <= 'z'; }
constexpr bool IsControl(char c) { return static_cast<unsigned char>(c) < ' ' || c == '\x7F'; }
// 0 to 15, or -1.
constexpr int HexDigit(char c) {
    const char low = FoldCase(c);
    return IsDigit(c) ? c - '0' : low >= 'a' && low <= 'f' ? low - 'a' + 10 : -1;
}
// Two digits a byte, in small letters.
inline std::string ToHex(std::string_view bytes) {
    constexpr char kDigits[] = "0123456789abcdef";
    std::string hex;
    for (const char each : bytes) {
        const auto byte = static_cast<unsigned char>(each);
        hex += {kDigits[byte >> 4U], kDigits[byte & 0xFU]};
    }
    return hex;
}

constexpr bool EqualIgnoringCase(std::string_view a, std::string_view b) {
    return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                      [](char x, char y) { return FoldCase(x) == FoldCase(y); });
}
inline std::string LowerCase(std::string_view text) {
    std::string lower(text);
    for (char& each : lower) each = FoldCase(each);
    return lower;
}
