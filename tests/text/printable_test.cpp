// Which bytes of a stranger may be shown.
#include "text/printable.h"

#include <gtest/gtest.h>

namespace {

TEST(Printable, Length) {
    const struct {
        const char* name;
        std::string_view text;
        std::size_t length;
    } cases[] = {
        {"two bytes", "\xC3\xA9", 2},
        {"four bytes", "\xF0\x9F\x98\x80", 4},
        {"first behind the upper controls", "\xC2\xA0", 2},
        {"line end", "\n", 0},
        {"escape", "\x1B[2J", 0},
        {"upper control as a byte", "\x9B", 0},
        {"upper control in UTF-8", "\xC2\x9B", 0},
        {"last of them", "\xC2\x9F", 0},
        {"cut short", "\xE2\x82", 0},
        {"upper control in a longer form", "\xE0\x82\x9B", 0},
        {"line separator", "\xE2\x80\xA8", 0},
        {"right-to-left override", "\xE2\x80\xAE", 0},
        {"first isolate", "\xE2\x81\xA6", 0},
        {"last isolate", "\xE2\x81\xA9", 0},
        {"narrow blank behind the overrides", "\xE2\x80\xAF", 3},
        {"right-to-left mark, which Hebrew needs", "\xE2\x80\x8F", 3},
        {"surrogate", "\xED\xA0\x80", 0},
        {"beyond the last", "\xF4\x90\x80\x80", 0},
    };
    for (const auto& each : cases) EXPECT_EQ(PrintableLength(each.text), each.length) << each.name;
}

}  // namespace
