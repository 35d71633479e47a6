#include "text/printable.h"

#include <algorithm>

namespace {

// U+2028 and U+2029, which end lines, U+202A to U+202E and U+2066 to U+2069, which turn around what
// stands behind them: the bytes behind the first one.
bool IsSteering(unsigned char second, unsigned char third) {
    return (second == 0x80 && third >= 0xA8 && third <= 0xAE) ||
           (second == 0x81 && third >= 0xA6 && third <= 0xA9);
}

}  // namespace

std::size_t PrintableLength(std::string_view text) {
    const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
    const unsigned char first = byte(0);
    if (first < 0x80) return first >= 0x20 && first != 0x7F ? 1 : 0;
    const std::size_t length = first >= 0xF0 ? 4 : first >= 0xE0 ? 3 : 2;
    if (first < 0xC2 || first > 0xF4 || text.size() < length) return 0;
    for (std::size_t i = 1; i < length; ++i) {
        if ((byte(i) & 0xC0U) != 0x80U) return 0;
    }
    // Forms longer than needed, surrogates, and what lies behind the last code point.
    if ((first == 0xE0 && byte(1) < 0xA0) || (first == 0xED && byte(1) > 0x9F) ||
        (first == 0xF0 && byte(1) < 0x90) || (first == 0xF4 && byte(1) > 0x8F))
        return 0;
    if (first == 0xE2 && IsSteering(byte(1), byte(2))) return 0;
    return first == 0xC2 && byte(1) < 0xA0 ? 0 : length;  // the upper controls
}

std::size_t TextWidth(std::string_view text) {
    return static_cast<std::size_t>(std::count_if(text.begin(), text.end(), [](char c) {
        return (static_cast<unsigned char>(c) & 0xC0U) != 0x80U;
    }));
}

// Clean texts have no controls: these two are all that has to be escaped.
std::string QuotedText(std::string_view text) {
    std::string quoted = "\"";
    for (const char each : CleanText(text)) {
        if (each == '"' || each == '\\') quoted += '\\';
        quoted += each;
    }
    return quoted + '"';
}

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
