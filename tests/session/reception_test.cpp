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
        bool fromStart = false;
    } cases[] = {{"a\r\n.\r\nb", "a\r\n..\r\nb"},
                 {"\r\n.\r\n.\r\n.\r\n", "\r\n..\r\n..\r\n..\r\n"},
                 {"\n.\n.\n", "\n..\n..\n"},
                 {"a\r\n..\r\nb", "a\r\n..\r\nb"},
                 {"a\n.\r\nb", "a\n..\r\nb"},
                 {"a\r\n.\nb", "a\r\n..\nb"},
                 {".\r\nb", ".\r\nb"},
                 {".\r\nb", "..\r\nb", true},
                 {".\n.\nb", "..\n..\nb", true},
                 {"..\r\n.x\r\n.\rb\r\n.", "..\r\n.x\r\n.\rb\r\n.", true}};
    for (const auto& each : cases)
        EXPECT_EQ(GuardLoneDots(each.text, each.fromStart), each.guarded);
}

// The slow way: one dot after the other, until none is alone.
std::string GuardOneByOne(std::string text, bool fromStart) {
    if (fromStart) text.insert(0, 1, '\n');
    for (const char* alone : {"\n.\r\n", "\n.\n"}) {
        for (std::size_t at = 0; (at = text.find(alone)) != std::string::npos;)
            text.insert(at + 1, 1, '.');
    }
    return fromStart ? text.substr(1) : text;
}

TEST(Reception, QuickLookAgreesWithTheSlowWay) {
    std::mt19937 random(7);
    for (int i = 0; i < 200000; ++i) {
        std::string text;
        for (unsigned n = static_cast<unsigned>(random() % 12); n > 0; --n)
            text += "\r\n.a"[random() % 4];
        const bool fromStart = i % 2 == 0;
        const std::string guarded = GuardOneByOne(text, fromStart);
        ASSERT_EQ(GuardLoneDots(text, fromStart), guarded) << testing::PrintToString(text);
        ASSERT_EQ(HasLoneDot(text, fromStart), guarded != text) << testing::PrintToString(text);
    }
}

}  // namespace
