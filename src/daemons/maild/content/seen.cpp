#include "daemons/maild/content/seen.h"

#include <algorithm>

#include "text/ascii.h"

namespace maild {

namespace {

bool IsSpace(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n' || c == '\f'; }

bool IsPlain(char c) { return (c >= ' ' && c <= '~') || IsSpace(c); }

}  // namespace

Look LookOf(std::string_view c) {
    if (c.size() == 1)
        return IsSpace(c[0]) ? Look::kBlank : IsControl(c[0]) ? Look::kUnseen : Look::kSeen;
    if (c == "\xC2\xA0" || c == "\xE3\x80\x80" || c == "\xE2\x80\xAF" || c == "\xE2\x81\x9F")
        return Look::kBlank;
    if (c == "\xC2\xAD" || c == "\xEF\xBB\xBF" || c == "\xCD\x8F" || c == "\xD8\x9C" ||
        c == "\xE1\xA0\x8E" || c == "\xE3\x85\xA4" || c == "\xE1\x85\x9F" || c == "\xE1\x85\xA0")
        return Look::kUnseen;
    // Variation selectors and tags.
    if (c.size() == 3 && c.starts_with("\xEF\xB8") && static_cast<unsigned char>(c[2]) <= 0x8F)
        return Look::kUnseen;
    if (c.size() == 4 && c.starts_with("\xF3\xA0")) return Look::kUnseen;
    if (c.size() == 3 && c.starts_with("\xE2\x80")) {
        const auto last = static_cast<unsigned char>(c[2]);
        if (last <= 0x8A || last == 0xA8 || last == 0xA9) return Look::kBlank;
        if (last <= 0x8F || (last >= 0xAA && last <= 0xAE)) return Look::kUnseen;
    }
    if (c.size() == 3 && c.starts_with("\xE2\x81") && static_cast<unsigned char>(c[2]) >= 0xA0 &&
        static_cast<unsigned char>(c[2]) <= 0xAF)
        return Look::kUnseen;
    return Look::kSeen;
}

std::size_t LengthOf(char first) {
    const auto byte = static_cast<unsigned char>(first);
    return byte < 0xC0 ? 1 : byte < 0xE0 ? 2 : byte < 0xF0 ? 3 : 4;
}

std::string Utf8(std::uint32_t c) {
    if (c == 0 || c > 0x10FFFF || (c >= 0xD800 && c < 0xE000)) c = 0xFFFD;
    const auto byte = [](std::uint32_t value) { return static_cast<char>(value); };
    if (c < 0x80) return {byte(c)};
    if (c < 0x800) return {byte(0xC0 | c >> 6), byte(0x80 | (c & 0x3F))};
    if (c < 0x10000)
        return {byte(0xE0 | c >> 12), byte(0x80 | (c >> 6 & 0x3F)), byte(0x80 | (c & 0x3F))};
    return {byte(0xF0 | c >> 18), byte(0x80 | (c >> 12 & 0x3F)), byte(0x80 | (c >> 6 & 0x3F)),
            byte(0x80 | (c & 0x3F))};
}

std::string SeenText(std::string_view text) {
    std::string seen;
    seen.reserve(text.size());
    while (!text.empty()) {
        const auto odd = std::find_if_not(text.begin(), text.end(), IsPlain);
        const auto plain = static_cast<std::size_t>(odd - text.begin());
        seen += text.substr(0, plain);
        text.remove_prefix(plain);
        if (text.empty()) break;
        const std::string_view character = text.substr(0, LengthOf(text[0]));
        const Look look = LookOf(character);
        if (look == Look::kBlank) seen += ' ';
        if (look == Look::kSeen) seen += character;
        text.remove_prefix(character.size());
    }
    return seen;
}

}  // namespace maild
