// What of a stranger's text may reach a log line or a terminal, and how wide it is there.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

// Bytes of the printable character at the text's start: well-formed UTF-8 and no control, neither
// of the lower ones (below 0x20, 0x7F) nor of the upper ones (0x80 to 0x9F, as a byte or in UTF-8),
// nor one that ends a line or changes the direction of what follows.
// 0: its first byte has to be shown in another way. The text is not empty.
std::size_t PrintableLength(std::string_view text);
// The text without control characters and broken UTF-8 ('?' in their place), cut to limit bytes at
// a character's boundary.
std::string CleanText(std::string_view text, std::size_t limit = std::string_view::npos);
// The clean text in double quotes, as JSON takes it, and Prometheus: with a backslash in front of
// these and of its own.
std::string QuotedText(std::string_view text);
// How wide a text stands in a terminal: its characters, of which continuation bytes are none.
std::size_t TextWidth(std::string_view text);
