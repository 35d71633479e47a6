#include "session/reception.h"

#include <gtest/gtest.h>

#include <random>

namespace {

TEST(Reception, EndMarkers) {
    const struct {
        std::string_view text;
        EndMarker marker;
    } cases[] = {{"a\r\n.\r\n", EndMarker::kCrLf},
                 {"a\n.\n", EndMarker::kLf},
                 {"a\r\n.\n", EndMarker::kLf},
                 {".\r\n", EndMarker::kAloneCrLf},
                 {".\n", EndMarker::kAloneLf},
                 {"a\n.\r\n", EndMarker::kNone},
                 {"a\r\n..\r\n", EndMarker::kNone},
                 {"a\r\n.\r\nb", EndMarker::kNone},
                 {"", EndMarker::kNone},
                 {"a.\r\n", EndMarker::kNone}};
    for (const auto& each : cases) EXPECT_EQ(FindEndMarker(each.text), each.marker) << each.text;
}

TEST(Reception, GuardsLoneDots) {
    const struct {
        std::string_view text;
        std::string_view guarded;
    } cases[] = {{"a\r\n.\r\nb", "a\r\n..\r\nb"},
                 {"\r\n.\r\n.\r\n.\r\n", "\r\n..\r\n..\r\n..\r\n"},
                 {"\n.\n.\n", "\n..\n..\n"},
                 {"a\r\n..\r\nb", "a\r\n..\r\nb"},
                 {"a\n.\r\nb", "a\n.\r\nb"}};
    for (const auto& each : cases) EXPECT_EQ(GuardLoneDots(each.text), each.guarded);
}

TEST(Reception, QuickLookAgreesWithTheReplacement) {
    std::mt19937 random(7);
    for (int i = 0; i < 200000; ++i) {
        std::string text;
        for (unsigned n = static_cast<unsigned>(random() % 12); n > 0; --n)
            text += "\r\n.a"[random() % 4];
        ASSERT_EQ(HasLoneDot(text), GuardLoneDots(text) != text) << testing::PrintToString(text);
    }
}

}  // namespace
