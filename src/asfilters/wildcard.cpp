#include "asfilters/wildcard.h"

#include <array>
#include <cstddef>
#include <cstring>

#include "asfilters/text.h"
#include "text/ascii.h"

namespace {

constexpr int kMaxStars = 255;

constexpr std::array<char, 256> MakeFoldTable() {
    std::array<char, 256> table{};
    for (std::size_t i = 0; i < table.size(); ++i) table[i] = FoldCase(static_cast<char>(i));
    return table;
}
constexpr std::array<char, 256> kFold = MakeFoldTable();

inline bool SameChar(char a, char b) {
    return kFold[static_cast<unsigned char>(a)] == kFold[static_cast<unsigned char>(b)] ||
           a == '?' || b == '?';
}

inline bool SameChars(const char* a, const char* b, std::size_t n) {
    for (std::size_t i = 0; i < n; ++i) {
        if (!SameChar(a[i], b[i])) return false;
    }
    return true;
}

// What is left of the pattern or the text: what lies behind its end has been matched.
struct Remainder {
    const char* begin;
    std::size_t length;

    bool CutEnd(const char* fragment, std::size_t n) {
        if (length < n || !SameChars(begin + length - n, fragment, n)) return false;
        length -= n;
        return true;
    }
    // At the fragment's rightmost place, which leaves the most for the fragments before it: so no
    // other place has to be tried when one of those fails.
    bool CutMiddle(const char* fragment, std::size_t n) {
        if (length < n) return false;
        for (std::size_t at = length - n + 1; at-- > 0;) {
            if (!SameChars(begin + at, fragment, n)) continue;
            length = at;
            return true;
        }
        return false;
    }
};

int CountStars(const char* pattern) {
    int stars = 0;
    for (; *pattern != '\0'; ++pattern) stars += *pattern == '*';
    return stars;
}

}  // namespace

int CompareChars(const char* a, const char* b, int n) {
    if (a == nullptr || b == nullptr) return 0;
    return n < 1 || SameChars(a, b, static_cast<std::size_t>(n)) ? 1 : 0;
}

// The fragments between the stars are taken from the last to the first.
int MatchWildcard(const char* text, const char* pattern) {
    if (text == nullptr || pattern == nullptr) return text != nullptr && pattern == nullptr;
    Remainder rest{text, std::strlen(text)};
    const char* end = pattern + std::strlen(pattern);
    const int stars = CountStars(pattern);
    if (stars == 0) {
        const auto length = static_cast<std::size_t>(end - pattern);
        return rest.length == length && SameChars(text, pattern, length);
    }
    if (stars > kMaxStars) return 0;
    for (int left = stars; left > 0; --left) {
        const char* fragment = end;
        while (fragment[-1] != '*') --fragment;
        const auto n = static_cast<std::size_t>(end - fragment);
        if (!(left == stars ? rest.CutEnd(fragment, n) : rest.CutMiddle(fragment, n))) return 0;
        end = fragment - 1;
    }
    const auto n = static_cast<std::size_t>(end - pattern);
    return rest.length >= n && SameChars(text, pattern, n);
}
