#include "daemons/logd/quote.h"

#include <algorithm>
#include <cstdio>

#include "text/printable.h"

namespace {

void AppendByte(std::string& line, const char* format, char byte) {
    char escaped[8];
    std::snprintf(escaped, sizeof escaped, format, static_cast<unsigned char>(byte));
    line += escaped;
}

bool NeedsQuotes(char c) { return c <= ' ' || c >= '\x7F' || c == '"' || c == '\\' || c == '='; }

// Of the text's first character, which is not printable: whether it is a control in UTF-8.
std::size_t ControlLength(std::string_view text) {
    const auto first = static_cast<unsigned char>(text[0]);
    if (first < 0x20 || first == 0x7F) return 1;
    const bool upper = first == 0xC2 && text.size() > 1 &&
                       static_cast<unsigned char>(text[1]) >= 0x80 &&
                       static_cast<unsigned char>(text[1]) < 0xA0;
    return upper ? 2 : 0;
}

// Calls `escape` with the rest of the text at each place where it isn't printable; that gives the
// bytes that it has dealt with.
template <typename Escape>
void AppendEscaped(std::string& line, std::string_view text, Escape escape) {
    line += '"';
    while (!text.empty()) {
        std::size_t length = PrintableLength(text);
        if (length == 0) {
            length = escape(text);
        } else {
            if (text.front() == '"' || text.front() == '\\') line += '\\';
            line += text.substr(0, length);
        }
        text.remove_prefix(length);
    }
    line += '"';
}

}  // namespace

void AppendQuoted(std::string& line, std::string_view text) {
    AppendEscaped(line, text, [&line](std::string_view rest) {
        AppendByte(line, "\\x%02X", rest.front());
        return std::size_t{1};
    });
}

void AppendWord(std::string& line, std::string_view text) {
    if (text.empty() || std::any_of(text.begin(), text.end(), NeedsQuotes)) {
        AppendQuoted(line, text);
    } else {
        line += text;
    }
}

void AppendJson(std::string& line, std::string_view text) {
    AppendEscaped(line, text, [&line](std::string_view rest) {
        const std::size_t length = ControlLength(rest);
        // The code of an upper control is its second byte.
        AppendByte(line, length == 0 ? "\\\\x%02X" : "\\u%04x", rest[length == 2 ? 1 : 0]);
        return std::max<std::size_t>(length, 1);
    });
}
