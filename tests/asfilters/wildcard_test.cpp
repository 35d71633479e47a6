#include "asfilters/wildcard.h"

#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>
#include <vector>

namespace {

// The matching as it is defined, step by step, with its table of fragments and its private copy of
// the text: what the fast one has to agree with.
namespace slow {

char Lower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

int CompareChars(const char* a, const char* b, int n) {
    if (a == nullptr || b == nullptr) return 0;
    if (n < 1) return 1;
    for (int i = 0; i < n; ++i) {
        if (Lower(a[i]) != Lower(b[i]) && a[i] != '?' && b[i] != '?') return 0;
    }
    return 1;
}

enum Kind { kStart = 1, kEnd = 2, kMiddle = 4 };
struct Fragment {
    std::string text;
    int length;
    Kind kind;
};

bool MatchFragment(std::vector<char>& remainder, int& r, const Fragment& fragment) {
    const int n = fragment.length;
    if (r < n) return false;
    if (fragment.kind == kStart) return CompareChars(remainder.data(), fragment.text.data(), n);
    if (fragment.kind == kEnd) {
        if (!CompareChars(remainder.data() + r - n, fragment.text.data(), n)) return false;
        remainder[static_cast<std::size_t>(r - n)] = '\0';
        r = static_cast<int>(std::strlen(remainder.data()));
        return true;
    }
    for (int at = r - n; at >= 0; --at) {
        if (!CompareChars(remainder.data() + at, fragment.text.data(), n)) continue;
        remainder[static_cast<std::size_t>(at)] = '\0';
        r = static_cast<int>(std::strlen(remainder.data()));
        return true;
    }
    return false;
}

int MatchWildcard(const std::string& text, const std::string& pattern) {
    std::vector<std::string> pieces(1);
    for (const char c : pattern) {
        if (c == '*')
            pieces.emplace_back();
        else
            pieces.back() += c;
    }
    if (pieces.size() == 1) {
        if (text.size() != pattern.size()) return 0;
        return CompareChars(text.data(), pattern.data(), static_cast<int>(text.size()));
    }
    if (pieces.size() > 256) return 0;
    std::vector<Fragment> fragments;
    for (std::size_t i = 0; i < pieces.size(); ++i)
        fragments.push_back({pieces[i], static_cast<int>(pieces[i].size()),
                             i == 0                   ? kStart
                             : i + 1 == pieces.size() ? kEnd
                                                      : kMiddle});
    std::vector<char> remainder(text.begin(), text.end());
    remainder.push_back('\0');
    int r = static_cast<int>(text.size());
    for (std::size_t i = fragments.size(); i-- > 0;) {
        if (!MatchFragment(remainder, r, fragments[i])) return 0;
    }
    return 1;
}

}  // namespace slow

TEST(Wildcard, Verdicts) {
    const std::string stars255(255, '*');
    const std::string stars256(256, '*');
    const struct {
        const char* text;
        const char* pattern;
        int result;
    } cases[] = {{"", "", 1},
                 {"a", "", 0},
                 {"", "*", 1},
                 {"anything", "*", 1},
                 {"anything", "**", 1},
                 {"axbyc", "a*b*c", 1},
                 {"abc", "a*b*c", 1},
                 {"acb", "a*b*c", 0},
                 {"aba", "ab*ba", 0},
                 {"abba", "ab*ba", 1},
                 {"u@Spam.Example", "*@spam.EXAMPLE", 1},
                 {"u@spam.example.org", "*@spam.example", 0},
                 {"abc", "a?c", 1},
                 {"ac", "a?c", 0},
                 {"a?c", "abc", 1},
                 {"a?c", "a*bc", 1},
                 {"aXbc", "a*x*x*c", 0},
                 {"@", "[", 0},
                 {"\xC4", "\xE4", 0},
                 {"abc", stars255.c_str(), 1},
                 {"abc", stars256.c_str(), 0},
                 {"abc", nullptr, 1},
                 {nullptr, "*", 0},
                 {nullptr, nullptr, 0}};
    for (const auto& each : cases)
        EXPECT_EQ(MatchWildcard(each.text, each.pattern), each.result)
            << (each.text ? each.text : "null") << " " << (each.pattern ? each.pattern : "null");
}

TEST(Wildcard, Comparison) {
    EXPECT_EQ(CompareChars(nullptr, "a", 0), 0);
    EXPECT_EQ(CompareChars("a", nullptr, -1), 0);
    EXPECT_EQ(CompareChars("a", "b", 0), 1);
    EXPECT_EQ(CompareChars("a", "b", -1), 1);
    EXPECT_EQ(CompareChars("aB?d", "Ab??", 4), 1);
    EXPECT_EQ(CompareChars("abc", "abd", 3), 0);
}

// A small alphabet and short texts, so that most tries come near a match.
TEST(Wildcard, AgreesWithTheDefinition) {
    std::mt19937 random(3);
    const auto make = [&random](const char* alphabet, unsigned longest) {
        std::string text;
        const auto letters = static_cast<unsigned>(std::strlen(alphabet));
        for (unsigned n = static_cast<unsigned>(random() % (longest + 1)); n > 0; --n)
            text += alphabet[random() % letters];
        return text;
    };
    int matched = 0;
    for (int i = 0; i < 400000; ++i) {
        const std::string text = make("abAB@?*", 14);
        const std::string pattern = make("abA?*****", 9);
        const int result = MatchWildcard(text.c_str(), pattern.c_str());
        ASSERT_EQ(result, slow::MatchWildcard(text, pattern)) << text << " " << pattern;
        matched += result;
    }
    EXPECT_GT(matched, 40000) << "the texts should try both verdicts";
    EXPECT_LT(matched, 360000) << "the texts should try both verdicts";
    for (int i = 0; i < 2000; ++i) {
        const std::string text = make("ab", 511);
        const std::string pattern = make("ab*******", 255);
        ASSERT_EQ(MatchWildcard(text.c_str(), pattern.c_str()), slow::MatchWildcard(text, pattern))
            << text << " " << pattern;
    }
}

}  // namespace
