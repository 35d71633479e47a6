// Codings undone whatever way the text is cut, and charsets.
#include <gtest/gtest.h>
#include <unistd.h>

#include "daemons/maild/coding/decoder.h"
#include "daemons/maild/coding/scratch.h"
#include "daemons/maild/coding/text.h"
#include "text/base64.h"

namespace {

using namespace std::string_literals;

template <typename Decoder>
std::string Cut(Decoder decoder, const std::string& text, std::size_t piece) {
    std::string out;
    for (std::size_t at = 0; at < text.size(); at += piece)
        decoder.Write(std::string_view(text).substr(at, piece), out);
    decoder.Finish(out);
    return out;
}

TEST(Coding, Base64) {
    const struct {
        const char* name;
        std::string text;
        std::string bytes;
        bool odd;
        bool cut;
    } cases[] = {
        {"groups", "YWJjZGVm", "abcdef", false, false},
        {"fillers", "YWI=", "ab", false, false},
        {"no fillers", "YQ", "a", false, false},
        {"lines", "YWJj\r\nZGVm\r\n", "abcdef", false, false},
        {"line ends in groups", "YWJ\r\njZG\nVm", "abcdef", false, true},
        {"blanks in groups", "YW Jj", "abc", false, false},
        {"digits behind fillers", "YQ==YWJj", "aabc", true, false},
        {"a foreign character", "YW!Jj", "abc", true, false},
        {"one digit at the end", "YWJjY", "abc", true, false},
        {"fillers alone", "====", "", false, false},
    };
    for (const auto& each : cases) {
        for (std::size_t piece = 1; piece <= each.text.size(); ++piece)
            EXPECT_EQ(Cut(maild::Base64Decoder(), each.text, piece), each.bytes) << each.name;
        maild::Base64Decoder decoder;
        std::string out;
        decoder.Write(each.text, out);
        decoder.Finish(out);
        EXPECT_EQ(decoder.Odd(), each.odd) << each.name;
        EXPECT_EQ(decoder.Cut(), each.cut) << each.name;
    }
}

TEST(Coding, QuotedPrintable) {
    const struct {
        const char* name;
        std::string text;
        std::string bytes;
        bool odd;
    } cases[] = {
        {"escapes", "a=3D=c3=A9b", "a=\xC3\xA9"s + "b", false},
        {"soft line end", "a=\r\nb=\nc", "abc", false},
        {"blanks behind a soft line end", "a= \t\r\nb", "ab", true},
        {"blanks at a line's end", "a \t\r\n b \n", "a\r\n b\n", false},
        {"an escape that is none", "a=XYb=4", "a=XYb=4", true},
        {"one digit and a line end", "a=4\nb", "a=4\nb", true},
        {"at the end", "a=", "a", false},
        {"twice", "==41", "=A", true},
    };
    for (const auto& each : cases) {
        for (std::size_t piece = 1; piece <= each.text.size(); ++piece)
            EXPECT_EQ(Cut(maild::QuotedDecoder(), each.text, piece), each.bytes) << each.name;
        maild::QuotedDecoder decoder;
        std::string out;
        decoder.Write(each.text, out);
        decoder.Finish(out);
        EXPECT_EQ(decoder.Odd(), each.odd) << each.name;
    }
    // A stranger's blanks are not held.
    EXPECT_EQ(Cut(maild::QuotedDecoder(), std::string(100000, ' ') + "x", 4096).size(), 100001U);
}

std::string Utf8(const std::string& charset, const std::string& bytes, std::size_t piece) {
    maild::Utf8Stream stream(charset);
    std::string out;
    const auto take = [&out](std::string_view text) { out += text; };
    for (std::size_t at = 0; at < bytes.size(); at += piece) {
        const std::string part = bytes.substr(at, piece);
        stream.Write(std::as_bytes(std::span<const char>(part)), take);
    }
    stream.Finish(take);
    return out;
}

TEST(Coding, Charsets) {
    const struct {
        const char* name;
        const char* charset;
        std::string bytes;
        std::string text;
    } cases[] = {
        {"UTF-8", "utf-8", "\xC3\xA9\xE2\x82\xAC", "\xC3\xA9\xE2\x82\xAC"},
        {"none, and not UTF-8", "", "caf\xE9 x", "caf\xC3\xA9 x"},
        {"Latin", "iso-8859-1", "\xE9", "\xC3\xA9"},
        {"UTF-16", "utf-16le", "a\0\xE9\0"s, "a\xC3\xA9"},
        {"shifts", "iso-2022-jp", "\x1B$B$\"\x1B(B.", "\xE3\x81\x82."},
        {"unknown", "x-none", "a\xC3\xA9", "a\xC3\xA9"},
        {"a suffix", "utf-7//ignore", "+AOk-", "+AOk-"},
        {"cut at the end", "utf-16le", "a\0b"s, "a\xEF\xBF\xBD"},
    };
    for (const auto& each : cases) {
        for (std::size_t piece = 1; piece <= each.bytes.size(); ++piece)
            EXPECT_EQ(Utf8(each.charset, each.bytes, piece), each.text) << each.name << piece;
    }
    const std::string large(300000, 'x');
    EXPECT_EQ(Utf8("iso-8859-1", large, 65536), large);
}

TEST(Coding, ScratchHoldsWhatWasWritten) {
    maild::Scratch scratch;
    std::string all;
    for (int i = 0; i < 100; ++i) {
        const std::string piece(9999, static_cast<char>('a' + i % 26));
        ASSERT_TRUE(scratch.Write(piece));
        all += piece;
    }
    const platform::File copy(dup(scratch.Rewind()));
    std::string read(all.size() + 1, '\0');
    EXPECT_EQ(pread(copy.Descriptor(), read.data(), read.size(), 0),
              static_cast<ssize_t>(all.size()));
    read.pop_back();
    EXPECT_EQ(read, all);
}

}  // namespace
