#include "daemons/maild/attachments/names.h"

#include <glib.h>

#include <algorithm>
#include <memory>

namespace maild {

namespace {

// Longer names can't be saved anywhere.
constexpr std::size_t kLongestName = 4096;
constexpr std::size_t kMostFolded = 65536;

struct Freed {
    void operator()(char* text) const { g_free(text); }
};
using GText = std::unique_ptr<char, Freed>;

void AddOnce(std::vector<std::string>& list, std::string text) {
    if (!text.empty() && std::find(list.begin(), list.end(), text) == list.end())
        list.push_back(std::move(text));
}

// Characters that take no room of their own where a name is shown.
bool IsUnseen(gunichar c) {
    switch (g_unichar_type(c)) {
        case G_UNICODE_CONTROL:
        case G_UNICODE_FORMAT:
            return true;
        default:
            break;
    }
    return c == 0x034F || c == 0x115F || c == 0x1160 || c == 0x17B4 || c == 0x17B5 || c == 0x3164 ||
           c == 0xFFFD || (c >= 0xFE00 && c <= 0xFE0F) || (c >= 0xE0000 && c <= 0xE0FFF);
}

// Also the full stops of other scripts, which some systems' domain and file names fold.
bool IsDot(gunichar c) { return c == '.' || c == 0x3002 || c == 0xFF61 || c == 0x2024; }

template <typename Use>
void EachCharacter(std::string_view text, Use use) {
    for (const char* at = text.data(); at < text.data() + text.size(); at = g_utf8_next_char(at))
        use(g_utf8_get_char(at));
}

void Append(std::string& text, gunichar c) {
    char bytes[6];
    text.append(bytes, static_cast<std::size_t>(g_unichar_to_utf8(c, bytes)));
}

// Of a folded text.
std::string WithoutUnseen(std::string_view text) {
    std::string seen;
    EachCharacter(text, [&](gunichar c) {
        if (IsUnseen(c)) return;
        if (IsDot(c)) c = '.';
        if (g_unichar_isspace(c)) c = ' ';
        Append(seen, c);
    });
    while (!seen.empty() && (seen.back() == '.' || seen.back() == ' ')) seen.pop_back();
    seen.erase(0, std::min(seen.find_first_not_of(' '), seen.size()));
    return seen;
}

void AddCleaned(std::vector<std::string>& list, std::string_view folded) {
    std::string seen = WithoutUnseen(folded);
    AddOnce(list, seen);
    // A folder of that name to some, to others a file.
    while (!seen.empty() && (seen.back() == '/' || seen.back() == '\\')) seen.pop_back();
    const std::size_t folder = seen.find_last_of("/\\");
    const std::string file = folder == std::string::npos ? seen : seen.substr(folder + 1);
    AddOnce(list, WithoutUnseen(file));
    // The name of a stream of the file. In a title there is a blank behind the colon.
    const std::size_t colon = file.find(':');
    if (colon != std::string::npos && colon > 1 && file.substr(colon + 1, 1) != " ")
        AddOnce(list, WithoutUnseen(file.substr(0, colon)));
    // In quotes that don't belong to it, with a parameter that was taken for a part of it, or up to
    // what no file's name may have.
    constexpr char kOdd[] = "\"'`;<>?|*";
    if (file.find_first_of(kOdd) == std::string::npos) return;
    const std::size_t from = file.find_first_not_of("\"'`<>?|* ");
    if (from == std::string::npos) return;
    AddOnce(list, WithoutUnseen(file.substr(from, file.find_first_of(kOdd, from) - from)));
}

std::u32string Characters(std::string_view text) {
    std::u32string characters;
    EachCharacter(text, [&](gunichar c) { characters += static_cast<char32_t>(c); });
    return characters;
}

// Behind `[` at `at`: whether the character is in the set; `at` goes behind its `]`. Without one
// the `[` is itself.
bool InSet(std::u32string_view pattern, std::size_t& at, char32_t c) {
    std::size_t i = at + 1;
    const bool inverse = i < pattern.size() && (pattern[i] == '!' || pattern[i] == '^');
    if (inverse) ++i;
    bool in = false;
    for (bool first = true; i < pattern.size() && (first || pattern[i] != ']'); first = false) {
        if (pattern[i] == '\\' && i + 1 < pattern.size()) ++i;
        const char32_t from = pattern[i];
        char32_t to = from;
        if (i + 2 < pattern.size() && pattern[i + 1] == '-' && pattern[i + 2] != ']') {
            i += 2;
            to = pattern[i];
        }
        in = in || (c >= from && c <= to);
        ++i;
    }
    if (i >= pattern.size()) return c == pattern[at++];
    at = i + 1;
    return in != inverse;
}

// One character of the text against what stands at `at`, which goes behind it.
bool MatchOne(std::u32string_view pattern, std::size_t& at, char32_t c) {
    switch (pattern[at]) {
        case '?':
            ++at;
            return true;
        case '[':
            return InSet(pattern, at, c);
        case '\\':
            if (at + 1 < pattern.size()) ++at;
            break;
        default:
            break;
    }
    return pattern[at++] == c;
}

// Goes back to the last star alone, so the time is the product of the lengths at most.
bool MatchWhole(std::u32string_view pattern, std::u32string_view text) {
    std::size_t at = 0;
    std::size_t behindStar = std::u32string_view::npos;
    std::size_t tried = 0;
    for (std::size_t i = 0; i < text.size();) {
        if (at < pattern.size() && pattern[at] == '*') {
            behindStar = ++at;
            tried = i;
            continue;
        }
        if (at < pattern.size() && MatchOne(pattern, at, text[i])) {
            ++i;
            continue;
        }
        if (behindStar == std::u32string_view::npos) return false;
        at = behindStar;
        i = ++tried;
    }
    while (at < pattern.size() && pattern[at] == '*') ++at;
    return at == pattern.size();
}

}  // namespace

std::string FoldText(std::string_view text) {
    const GText valid(g_utf8_make_valid(text.data(), static_cast<gssize>(text.size())));
    const GText plain(g_utf8_normalize(valid.get(), -1, G_NORMALIZE_NFKC));
    if (plain == nullptr) return valid.get();
    const GText folded(g_utf8_casefold(plain.get(), -1));
    // Folding may leave what isn't composed.
    const GText whole(g_utf8_normalize(folded.get(), -1, G_NORMALIZE_NFKC));
    return whole == nullptr ? folded.get() : whole.get();
}

std::vector<std::string> ReadingsOfName(std::string_view name) {
    std::vector<std::string> readings;
    // Who saves it must shorten it, and keeps what tells its type.
    std::string shortened;
    if (name.size() > kLongestName) {
        shortened = FoldText(name.substr(0, kMostFolded));
        if (name.size() > kMostFolded)
            shortened += FoldText(
                name.substr(name.size() - std::min(name.size() - kMostFolded, kLongestName / 2)));
        shortened = WithoutUnseen(shortened);
        if (shortened.size() > kLongestName)
            shortened = shortened.substr(0, kLongestName / 2) +
                        shortened.substr(shortened.size() - kLongestName / 2);
        name = shortened;
    }
    const std::string cut = FoldText(name.substr(0, name.find('\0')));
    AddOnce(readings, cut);
    AddCleaned(readings, cut);
    if (name.find('\0') == std::string_view::npos) return readings;
    std::string whole;
    for (const char c : name) {
        if (c != '\0') whole += c;
    }
    AddCleaned(readings, FoldText(whole));
    return readings;
}

std::string ShownName(std::string_view path) {
    const std::size_t slash = path.find_last_of('/');
    return std::string(slash == std::string_view::npos ? path : path.substr(slash + 1));
}

NamePatterns::NamePatterns(std::string_view text) {
    while (!text.empty()) {
        const std::size_t end = text.find(';');
        const std::string folded = FoldText(text.substr(0, end));
        const std::size_t from = folded.find_first_not_of(" \t");
        if (from != std::string::npos) {
            const std::size_t to = folded.find_last_not_of(" \t");
            patterns_.push_back(Characters(std::string_view(folded).substr(from, to + 1 - from)));
        }
        if (end == std::string_view::npos) break;
        text.remove_prefix(end + 1);
    }
}

bool NamePatterns::Match(std::string_view folded) const {
    const std::u32string characters = Characters(folded);
    return std::any_of(patterns_.begin(), patterns_.end(), [&](const std::u32string& pattern) {
        return MatchWhole(pattern, characters);
    });
}

bool NamePatterns::AllAmong(std::span<const std::string_view> folded) const {
    return std::all_of(patterns_.begin(), patterns_.end(), [&](const std::u32string& pattern) {
        return std::any_of(folded.begin(), folded.end(),
                           [&](std::string_view text) { return pattern == Characters(text); });
    });
}

bool NamePatterns::MatchAny(const std::vector<std::string>& folded) const {
    return std::any_of(folded.begin(), folded.end(),
                       [&](const std::string& each) { return Match(each); });
}

}  // namespace maild
