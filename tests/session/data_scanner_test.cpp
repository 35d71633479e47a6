#include "session/message/data_scanner.h"

#include <gtest/gtest.h>

#include <random>

namespace {

using namespace std::string_literals;
using End = DataScanner::End;

struct Scan {
    std::string text;
    End end = End::kNone;
    std::size_t held = 0;
    std::size_t used = 0;
};

// Feeds the stream in pieces of the given lengths, the rest as one.
Scan Feed(std::string_view stream, const std::vector<std::size_t>& cuts, bool pipelining) {
    DataScanner scanner(pipelining);
    Scan scan;
    for (std::size_t i = 0; i <= cuts.size() && !stream.empty(); ++i) {
        const std::string_view piece = stream.substr(0, i < cuts.size() ? cuts[i] : stream.size());
        const std::size_t used = scanner.Feed(piece, scan.text);
        scan.used += used;
        if (used < piece.size()) break;
        stream.remove_prefix(used);
    }
    scan.end = scanner.Ending();
    scan.held = scanner.HeldBack();
    return scan;
}

TEST(DataScanner, Ends) {
    const struct {
        const char* name;
        std::string stream;
        End end;
        std::string text;
    } cases[] = {
        {"the end", "a\r\n.\r\n", End::kNow, "a\r\n"},
        {"an empty message", ".\r\n", End::kNow, ""},
        {"bare line feeds", "a\n.\n", End::kIfSilent, "a\n"},
        {"CR LF, dot, LF", "a\r\n.\n", End::kIfSilent, "a\r\n"},
        {"an empty one with a bare LF", ".\n", End::kIfSilent, ""},
        {"LF, dot, CR LF", "a\n.\r\n", End::kNone, "a\n..\r\n"},
        {"CR, dot, CR LF", "a\r.\r\n", End::kNone, "a\r..\r\n"},
        {"CR, dot, LF", "a\r.\n", End::kNone, "a\r..\n"},
        {"zero byte, dot, LF", "a\n\0.\n"s, End::kNone, "a\n\0..\n"s},
        {"a stuffed dot", "a\r\n..\r\n", End::kNone, "a\r\n..\r\n"},
        {"more behind it", "a\r\n.\r\nb", End::kNone, "a\r\n..\r\nb"},
        {"more behind bare ones", "a\n.\nb", End::kNone, "a\n..\nb"},
        {"not a line of its own", "a.\r\n", End::kNone, "a.\r\n"},
        {"a second one behind the first", "\r\n.\r\n.\r\n.\r\n", End::kNow, "\r\n..\r\n..\r\n"},
        {"CR CR LF behind", "a\r\n.\r\r\nb", End::kNone, "a\r\n..\r\r\nb"},
        {"CR CR LF in front", "a\r\r\n.\r\n", End::kNow, "a\r\r\n"},
        {"zero byte behind", "a\n.\0b"s, End::kNone, "a\n..\0b"s},
        {"zero byte inside", "a\r\n.\0\r\nb"s, End::kNone, "a\r\n..\0\r\nb"s},
        {"bare CR on both sides", "a\r.\rb", End::kNone, "a\r..\rb"},
        {"nothing", "", End::kNone, ""},
    };
    for (const auto& each : cases) {
        const Scan scan = Feed(each.stream, {}, false);
        EXPECT_EQ(scan.end, each.end) << each.name;
        EXPECT_EQ(scan.text, each.text) << each.name;
    }
}

TEST(DataScanner, WithAnOfferOfPipeliningCommandsBehindTheEndStay) {
    const Scan scan = Feed("a\r\n.\r\nQUIT\r\n.\r\n", {}, true);
    EXPECT_EQ(scan.text, "a\r\n");
    EXPECT_EQ(scan.end, End::kNow);
    EXPECT_EQ(scan.used, 6U);
}

bool InClass(char byte) { return byte == '\r' || byte == '\n' || byte == '\0'; }

// The slow way, over the whole stream at once.
Scan Slowly(const std::string& stream, bool pipelining) {
    const auto behindLine = [&](std::size_t at) { return at == 0 || InClass(stream[at - 1]); };
    const auto behindCrLf = [&](std::size_t at) {
        return at == 0 || (at > 1 && stream[at - 1] == '\n' && stream[at - 2] == '\r');
    };
    Scan scan;
    for (std::size_t at = 0; at < stream.size(); ++at) {
        const std::string rest = stream.substr(at);
        const bool last = pipelining ? rest.starts_with(".\r\n") : rest == ".\r\n";
        const bool bare = rest == ".\n" && (at == 0 || stream[at - 1] == '\n');
        if (last && behindCrLf(at)) {
            scan.end = End::kNow;
            scan.held = 3;
        } else if (bare) {
            scan.end = End::kIfSilent;
            scan.held = 2;
        } else if ((rest == "." || rest == ".\r") && behindLine(at)) {
            scan.held = rest.size();
        }
        scan.used = at + scan.held;
        if (scan.held > 0) return scan;
        if (rest[0] == '.' && behindLine(at) && rest.size() > 1 && InClass(rest[1]))
            scan.text += '.';
        scan.text += rest[0];
    }
    scan.used = stream.size();
    return scan;
}

TEST(DataScanner, AgreesWithTheSlowWayAtAnyCut) {
    std::mt19937 random(7);
    constexpr std::string_view kBytes("\r\n.a\0", 5);
    for (int i = 0; i < 200000; ++i) {
        std::string stream;
        for (auto n = random() % 14; n > 0; --n) stream += kBytes[random() % kBytes.size()];
        std::vector<std::size_t> cuts;
        for (auto n = random() % 5; n > 0; --n) cuts.push_back(1 + random() % 4);
        const bool pipelining = i % 2 == 0;
        const Scan quick = Feed(stream, cuts, pipelining);
        const Scan slow = Slowly(stream, pipelining);
        const std::string shown = testing::PrintToString(stream);
        ASSERT_EQ(quick.text, slow.text) << shown;
        ASSERT_EQ(quick.end, slow.end) << shown;
        ASSERT_EQ(quick.held, slow.held) << shown;
        ASSERT_EQ(quick.used, slow.used) << shown;
    }
}

}  // namespace
