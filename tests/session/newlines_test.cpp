#include "session/message/newlines.h"

#include <gtest/gtest.h>

#include "session/message/data_scanner.h"

namespace {

// All of it fed in two pieces, cut at every place.
TEST(Newlines, OneReadingWhateverTheCut) {
    const struct {
        std::string_view bytes;
        std::string_view lines;
        bool pure;  // it has none that stands alone
    } cases[] = {
        {"", "", true},
        {"a\r\nb\r\n", "a\r\nb\r\n", true},
        {"a\nb\n", "a\r\nb\r\n", false},
        {"a\rb\r", "a\r\nb\r\n", false},
        {"a\r\r\nb", "a\r\n\r\nb", false},
        {"\n\r\n\r", "\r\n\r\n\r\n", false},
        {"a\n\nb", "a\r\n\r\nb", false},
        {"\r\n\r\n", "\r\n\r\n", true},
    };
    for (const auto& each : cases) {
        for (std::size_t cut = 0; cut <= each.bytes.size(); ++cut) {
            NewlineFilter normalize(BareNewline::kNormalize);
            NewlineFilter reject(BareNewline::kReject);
            std::string lines;
            std::string ignored;
            EXPECT_TRUE(normalize.Feed(each.bytes.substr(0, cut), lines));
            EXPECT_TRUE(normalize.Feed(each.bytes.substr(cut), lines));
            EXPECT_TRUE(normalize.Finish(lines));
            EXPECT_EQ(lines, each.lines) << cut;
            EXPECT_EQ(reject.Feed(each.bytes.substr(0, cut), ignored) &&
                          reject.Feed(each.bytes.substr(cut), ignored) && reject.Finish(ignored),
                      each.pure)
                << each.lines << cut;
        }
    }
}

// What is left of a message has no line of one dot, and ends at CR LF, dot, CR LF alone.
TEST(Newlines, NothingButTheEndIsAnEnd) {
    const struct {
        std::string_view stream;
        std::string_view text;  // as it is stored
        bool ends;
    } cases[] = {
        {"a\r\n.\r\n", "a\r\n", true},
        {"a\n.\n", "a\r\n..\r\n", false},
        {"a\r\n.\n", "a\r\n..\r\n", false},
        {"a\n.\r\n", "a\r\n..\r\n", false},
        {"a\r.\r\r\n.\r\n", "a\r\n..\r\n\r\n", true},
        {".\n.\r\n.\r\n", "..\r\n..\r\n", true},
    };
    for (const auto& each : cases) {
        DataScanner scanner(false, true);
        NewlineFilter filter(BareNewline::kNormalize);
        std::string raw;
        std::string text;
        EXPECT_EQ(scanner.Feed(each.stream, raw), each.stream.size());
        filter.Feed(raw, text);
        filter.Finish(text);
        EXPECT_EQ(scanner.Ending() == DataScanner::End::kNow, each.ends) << each.text;
        EXPECT_EQ(text, each.text);
    }
}

}  // namespace
