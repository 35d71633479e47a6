#include "asfilters/wildcard.h"

#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>
#include <vector>

namespace {

// The matching as it is defined, by every way to read the text and the pattern from some place on:
// what the fast one has to agree with.
bool Slowly(const std::string& text, const std::string& pattern) {
    const auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c; };
    std::vector<std::vector<bool>> fits(text.size() + 1,
                                        std::vector<bool>(pattern.size() + 1, false));
    fits[text.size()][pattern.size()] = true;
    for (std::size_t t = text.size() + 1; t-- > 0;) {
        for (std::size_t p = pattern.size(); p-- > 0;) {
            const bool more = t < text.size();
            if (pattern[p] == '*')
                fits[t][p] = fits[t][p + 1] || (more && fits[t + 1][p]);
            else
                fits[t][p] =
                    more && fits[t + 1][p + 1] &&
                    (text[t] == '?' || pattern[p] == '?' || lower(text[t]) == lower(pattern[p]));
        }
    }
    return fits[0][0];
}

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
                 {"axbyc", "a*b*c", 1},
                 {"acb", "a*b*c", 0},
                 {"abba", "ab*ba", 1},
                 {"u@Spam.Example", "*@spam.EXAMPLE", 1},
                 {"u@spam.example.org", "*@spam.example", 0},
                 {"abc", "a?c", 1},
                 {"ac", "a?c", 0},
                 {"a?c", "abc", 1},
                 {"aXbc", "a*x*x*c", 0},
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
        ASSERT_EQ(result == 1, Slowly(text, pattern)) << text << " " << pattern;
        matched += result;
    }
    EXPECT_GT(matched, 40000) << "the texts should try both verdicts";
    EXPECT_LT(matched, 360000) << "the texts should try both verdicts";
    for (int i = 0; i < 300; ++i) {
        const std::string text = make("ab", 511);
        const std::string pattern = make("ab*******", 255);
        ASSERT_EQ(MatchWildcard(text.c_str(), pattern.c_str()) == 1, Slowly(text, pattern))
            << text << " " << pattern;
    }
}

}  // namespace
