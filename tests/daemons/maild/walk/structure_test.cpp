// The parts of a message: which there are, where they lie, and what of it readers may see
// otherwise.
#include <gtest/gtest.h>
#include <unistd.h>

#include "outline.h"

namespace {

using maild::Dots;
using maild::WalkEnd;
using maild::WalkLimits;
using maild::WalkResult;

// With a multipart around it.
std::string Mixed(const std::string& parts, const std::string& more = "") {
    return "Subject: a\nContent-Type: multipart/mixed; boundary=b\n" + more + "\n" + parts;
}

struct Case {
    const char* name;
    std::string text;
    const char* outline;
    const char* ambiguous;
};

TEST(Walk, Parts) {
    const Case cases[] = {
        {"no headers about the body", "Subject: a\n\nhello\n", "(1 text/plain[hello\r\n])", ""},
        {"nothing at all", "", "(1 text/plain[])", ""},
        {"headers alone", "Subject: a\n", "(1 text/plain[])", ""},
        {"two parts", Mixed("x\n--b\n\none\n--b\nContent-Type: TEXT/Html\n\ntwo\n\n--b--\ny\n"),
         "(multipart/mixed(1 text/plain[one])(2 text/html[two\r\n]))", ""},
        {"multipart in multipart",
         Mixed("--b\nContent-Type: multipart/alternative; boundary=\"c d\"\n\n--c d\n\n1\n--c "
               "d\n\n2\n"
               "--c d--\n--b\n\n3\n--b--\n"),
         "(multipart/mixed(1 multipart/alternative(1.1 text/plain[1])(1.2 text/plain[2]))"
         "(2 text/plain[3]))",
         ""},
        {"message in message",
         Mixed("--b\nContent-Type: message/rfc822\n\nSubject: i\n\nin\n--b\nContent-Type: "
               "message/rfc822\n\nContent-Type: multipart/mixed; "
               "boundary=c\n\n--c\n\nx\n--c--\n--b--\n"),
         "(multipart/mixed(1 message/rfc822(1.1 text/plain[in]))(2 message/rfc822(2 "
         "multipart/mixed(2.1 text/plain[x]))))",
         ""},
        {"digest", "Content-Type: multipart/digest; boundary=b\n\n--b\n\nTo: x\n\ny\n--b--\n",
         "(multipart/digest(1 message/rfc822(1.1 text/plain[y])))", ""},
        {"base64", "Content-Transfer-Encoding: BASE64\n\naGVs\nbG8=\n", "(1 text/plain[hello])",
         ""},
        {"quoted-printable", "Content-Transfer-Encoding: quoted-printable\n\na=3Db=\nc \n=C3=a9\n",
         "(1 text/plain[a=bc\r\n\xC3\xA9\r\n])", ""},
        {"uuencode", "Content-Transfer-Encoding: x-uuencode\n\nbegin 644 a\n%:&5L;&\\\n`\nend\n",
         "(1 text/plain[hello])", ""},
        {"headers ended by a boundary", Mixed("--b\nContent-Type: text/x\n--b--\n"),
         "(multipart/mixed(1 text/x[]))", ""},
        {"last boundary missing", Mixed("--b\n\none\n"), "(multipart/mixed(1 text/plain[one\r\n]))",
         ""},
        {"blanks behind a boundary", Mixed("--b \t\n\none\n--b-- \n"),
         "(multipart/mixed(1 text/plain[one]))", ""},
        {"the same Content-Type twice", "Content-Type: text/x\nContent-type: TEXT/X\n\ny\n",
         "(1 text/x[y\r\n])", ""},
        {"filename and filename*",
         "Content-Disposition: attachment; filename=a; filename*=utf-8''%C3%A9\n\ny\n",
         "(1 text/plain[y\r\n])", ""},
        {"a known coding in other words", "Content-Transfer-Encoding: 8-bit\n\ny\n",
         "(1 text/plain[y\r\n])", ""},
        {"a line of blanks in headers of no body", "Subject: a\n \nTo: b\n\ny\n",
         "(1 text/plain[y\r\n])", ""},
        {"longer boundary within",
         Mixed("--b\nContent-Type: multipart/x; boundary=bb\n\n--bb\n\n1\n"
               "--bb--\n--b--\n"),
         "(multipart/mixed(1 multipart/x(1.1 text/plain[1])))", ""},
    };
    for (const Case& each : cases) {
        const Outline outline = OutlineOf(Wire(each.text));
        EXPECT_EQ(outline.text, each.outline) << each.name;
        EXPECT_EQ(outline.ambiguous, each.ambiguous) << each.name;
    }
}

// What careless programs send, and servers that return mail.
TEST(Walk, WhatLooksOddAndIsAlikeToAll) {
    const auto returned = [](const std::string& rest) {
        return Mixed(
            "--b\nContent-Type: message/rfc822\n\nSubject: a\nContent-Type: "
            "multipart/mixed; boundary=c\n\n" +
            rest + "\n--b--\n");
    };
    const std::string type = "Content-Type: text/plain; charset=utf-8\nContent-Type: ";
    const std::string coding = "Content-Transfer-Encoding: 7bit\nContent-Transfer-Encoding: ";
    const struct {
        const char* name;
        std::string text;
        const char* ambiguous;
    } cases[] = {
        {"text twice", type + "TEXT/plain;charset=\"UTF-8\";\n\nx\n", ""},
        {"text twice, once with a name", type + "text/plain; charset=utf-8; name=a\n\nx\n",
         "two Content-Type headers"},
        {"text in two charsets", type + "text/plain; charset=utf-16\n\nx\n",
         "two Content-Type headers"},
        {"multipart twice",
         "Content-Type: multipart/mixed; boundary=b\nContent-Type: multipart/mixed; "
         "boundary=\"b\"\n\n--b\n\nx\n--b--\n",
         "two Content-Type headers"},
        {"no coding twice", coding + "8bit\n\nx\n", ""},
        {"no coding in three words", coding + "8bit\nContent-Transfer-Encoding: binary\n\nx\n", ""},
        {"a coding behind them", coding + "8bit\nContent-Transfer-Encoding: base64\n\nx\n",
         "two Content-Transfer-Encoding headers"},
        {"the end twice", Mixed("--b\n\nx\n--b--\n\n--b--\n"), ""},
        {"the end twice, and a part", Mixed("--b\n\nx\n--b--\n--b--\n--b\n\ny\n--b--\n"),
         "parts behind the end of a multipart"},
        {"returned without its parts", returned("----- Message truncated -----\n"), ""},
        {"returned with words alone", returned("This is a multi-part message.\n\n----- cut\n\nx\n"),
         ""},
        {"returned with headers of a part", returned("--d\ncontent-type: text/html\n\nx\n--d--\n"),
         "a multipart without a boundary"},
        {"returned with a file", returned("begin 644 a\n#86)C\nend\n"),
         "a multipart without a boundary"},
        {"returned with a line end to some", returned("--d\n\rcontent-type: text/html\n\nx\n"),
         "a multipart without a boundary"},
    };
    for (const auto& each : cases)
        EXPECT_EQ(OutlineOf(Wire(each.text)).ambiguous, each.ambiguous) << each.name;
}

TEST(Walk, WhatReadersSeeDifferently) {
    const struct {
        const char* name;
        std::string text;
        const char* ambiguous;
    } cases[] = {
        {"Content-Type", "Content-Type: text/plain\nContent-Type: text/html\n\nx\n",
         "two Content-Type headers"},
        {"coding", "Content-Transfer-Encoding: 7bit\nContent-Transfer-Encoding: base64\n\nx\n",
         "two Content-Transfer-Encoding headers"},
        {"boundary", "Content-Type: multipart/mixed; boundary=b; boundary=c\n\n--b\n\nx\n--b--\n",
         "a parameter twice"},
        {"filename", "Content-Disposition: inline; filename=a; filename=b\n\nx\n",
         "a parameter twice"},
        {"no boundary", "Content-Type: multipart/mixed\n\nx\n", "a multipart without a boundary"},
        {"empty boundary", "Content-Type: multipart/mixed; boundary=\"\"\n\nx\n",
         "a multipart without a boundary"},
        {"boundary never met", Mixed("--c\n\nx\n--c--\n"), "a multipart without a boundary"},
        {"boundary of the one around",
         Mixed("--b\nContent-Type: multipart/mixed; boundary=b\n\n--b\n\nx\n--b--\n"),
         "a boundary that is used twice"},
        {"boundary with a tail", Mixed("--b\n\nx\n--bx\n\ny\n--b--\n"),
         "a boundary with text behind it"},
        {"parts behind the end", Mixed("--b\n\nx\n--b--\n--b\n\ny\n--b--\n"),
         "parts behind the end of a multipart"},
        {"no end within",
         Mixed("--b\nContent-Type: multipart/mixed; boundary=c\n\n--c\n\nx\n--b\n\ny\n--b--\n"),
         "a multipart without its end"},
        {"NUL", std::string("Subject: a\0b\n\nx\n", 16), "a NUL in headers"},
        {"bare CR", "Subject: a\rb\n\nx\n", "a bare CR in headers"},
        {"line of blanks", "Subject: a\n \nContent-Type: text/html\n\nx\n",
         "headers folded in an odd way"},
        {"blank before the colon", "Content-Type : text/html\n\nx\n",
         "headers folded in an odd way"},
        {"boundary folded", "Content-Type: multipart/mixed; boundary=\"b\n c\"\n\n--b c\n\nx\n",
         "headers folded in an odd way"},
        {"first line folded", " x\nContent-Type: text/html\n\nx\n", "headers folded in an odd way"},
        {"no header", "Subject: a\nhello\nContent-Type: text/html\n\nx\n",
         "a line among headers that is none"},
        {"coding in quotes", "Content-Transfer-Encoding: \"base64\"\n\neA==\n",
         "an unknown Content-Transfer-Encoding"},
        {"coding with more", "Content-Transfer-Encoding: base64; x\n\neA==\n",
         "an unknown Content-Transfer-Encoding"},
        {"coded message",
         "Content-Type: message/rfc822\nContent-Transfer-Encoding: base64\n\nVG86IGEKCmIK\n",
         "a coded multipart or message"},
        {"filler in base64", "Content-Transfer-Encoding: base64\n\neA==eA==\n", "broken base64"},
        {"text in base64", "Content-Transfer-Encoding: base64\n\neHh4\n--\neHh4\n",
         "broken base64"},
        {"partial", "Content-Type: message/partial; id=a\n\nTo: a\n\nx\n", "a piece of a message"},
        {"elsewhere", "Content-Type: message/external-body; url=a\n\nTo: a\n\nx\n",
         "a part that lies elsewhere"},
    };
    for (const auto& each : cases)
        EXPECT_EQ(OutlineOf(Wire(each.text)).ambiguous, each.ambiguous) << each.name;
}

// Python's and others' idea of a blank.
TEST(Walk, ControlsAreBlanks) {
    for (const char* control : {"\v", "\f", "\x1C", "\x01"}) {
        const std::string c = control;
        const Outline outline =
            OutlineOf(Wire("Content-Type:" + c + " multipart/mixed" + c + ";" + c + "boundary" + c +
                           "=" + c + "b" + c + "\n\n--b\n\nx\n--b--\n"));
        EXPECT_EQ(outline.text, "(multipart/mixed(1 text/plain[x]))");
        EXPECT_EQ(outline.ambiguous, "headers folded in an odd way");
    }
}

TEST(Walk, WhatIsCodedAgainstTheRulesIsWalkedInBothReadings) {
    const Outline outline = OutlineOf(
        Wire("Content-Type: message/rfc822\nContent-Transfer-Encoding: base64\n\nVG86IGEKCmIK\n"));
    EXPECT_EQ(outline.text, "(1 message/rfc822(1.1 text/plain[])(1.1 text/plain[b\n]))");
    EXPECT_FALSE(outline.parts[1].ownRange);
    EXPECT_EQ(outline.parts[1].whole, outline.parts[2].body);
}

TEST(Walk, RangesAreThoseOfTheStoredFile) {
    const std::string text = Wire(
        "Content-Type: multipart/mixed; boundary=b\n\n..x\n--b\n\n..one\n.two\n--b\n\n3\n--b--\n");
    const Outline outline = OutlineOf(text, Dots::kStuffed);
    EXPECT_EQ(outline.text, "(multipart/mixed(1 text/plain[.one\r\ntwo])(2 text/plain[3]))");
    const auto piece = [&](const maild::Range& range) {
        return text.substr(static_cast<std::size_t>(range.begin),
                           static_cast<std::size_t>(range.end - range.begin));
    };
    EXPECT_EQ(piece(outline.parts[0].body), "..one\r\n.two");
    EXPECT_EQ(piece(outline.parts[0].whole), "\r\n..one\r\n.two");
    EXPECT_EQ(piece(outline.parts[2].whole), text);
}

TEST(Walk, Names) {
    const struct {
        const char* name;
        const char* headers;
        std::vector<std::string> names;
    } cases[] = {
        {"plain", "Content-Disposition: attachment; filename=\"a b.exe\"", {"a b.exe"}},
        {"both",
         "Content-Type: a/b; name=b.exe\nContent-Disposition: attachment; filename=a.txt",
         {"a.txt", "b.exe"}},
        {"RFC 2231",
         "Content-Disposition: attachment; filename*=utf-8''%C3%A9.exe",
         {"\xC3\xA9.exe", "utf-8''%C3%A9.exe"}},
        {"RFC 2231 in pieces",
         "Content-Disposition: a; filename*0=\"a.e\"; filename*1=xe",
         {"a.exe"}},
        {"RFC 2047",
         "Content-Disposition: a; filename=\"=?utf-8?q?a=2Eexe?=\"",
         {"a.exe", "=?utf-8?q?a=2Eexe?="}},
        {"twice", "Content-Disposition: a; filename=a.txt; filename=a.exe", {"a.txt", "a.exe"}},
        {"two headers",
         "Content-Disposition: a; filename=a.txt\nContent-Disposition: a; filename=a.exe",
         {"a.txt", "a.exe"}},
    };
    for (const auto& each : cases) {
        const Outline outline = OutlineOf(Wire(std::string(each.headers) + "\n\nx\n"));
        EXPECT_EQ(outline.parts[0].names, each.names) << each.name;
    }
}

// Some reader shows each of these as a program.
TEST(Walk, NamesOfLenientReaders) {
    const char* const cases[] = {
        "Content-Disposition: filename=a.exe",
        "Content-Type: name=a.exe",
        "Content-Disposition: attachment filename=a.exe",
        "Content-Disposition: attachment, FileName = \"a.exe\"; x=y",
        "Content-Disposition: attachment; filename=\"a.exe\" x=y",
        "Content-Disposition: attachment; filename=a(.exe",
        "Content-Disposition: attachment; filename=a.\n  exe",
        "Content-Disposition: attachment; filename=\"a.e\n\txe\"",
        "Content-Disposition: attachment; filename*1=.exe; filename*0=a",
        "Content-Disposition: attachment; filename*0=\"a.\"--; filename*1=\"exe\"",
        "Content-Disposition: attachment; filename*0=\"=?utf-8?Q?a=2E\"; filename*1=\"exe?=\"",
        "Content-Disposition: attachment; filename=\"=?utf-8?Q?my a=2Eexe?=\"",
        "Content-Disposition: attachment; filename=\"=?utf-8?B?YS5le?= =?utf-8?B?GU?=\"",
        "Content-Disposition: attachment; filename=\"=?utf-8*en?Q?a=2Eexe?=\"",
        "Content-Disposition: =?utf-8?Q?attachment;_filename=3Da.exe?=",
    };
    for (const char* each : cases) {
        const Outline outline = OutlineOf(Wire(std::string(each) + "\n\nx\n"));
        bool shown = false;
        for (const std::string& name : outline.parts[0].names)
            shown = shown || name.ends_with(".exe");
        EXPECT_TRUE(shown) << each;
    }
}

TEST(Walk, Limits) {
    std::string nested;
    std::string many = "Content-Type: multipart/mixed; boundary=b\n\n";
    for (int i = 0; i < 30; ++i) nested += "Content-Type: message/rfc822\n\n";
    for (int i = 0; i < 2000; ++i) many += "--b\n\n";
    std::string fields;
    for (int i = 0; i < 3000; ++i) fields += "a:\n";
    WalkLimits late;
    late.end = std::chrono::steady_clock::now();
    const struct {
        const char* name;
        std::string text;
        WalkLimits limits;
        WalkEnd end;
    } cases[] = {
        {"depth", nested, {}, WalkEnd::kTooComplex},
        {"parts", many, {}, WalkEnd::kTooComplex},
        {"header bytes", "a: " + std::string(300000, 'x') + "\n\n", {}, WalkEnd::kTooComplex},
        {"header fields", fields, {}, WalkEnd::kTooComplex},
        {"parameters",
         "Content-Type: a/b; " + std::string(20000, ';') + "\n\n",
         {},
         WalkEnd::kTooComplex},
        {"boundaries",
         [] {
             std::string text = "Content-Type: multipart/x";
             for (int i = 0; i < 20; ++i) text += "; boundary=b" + std::to_string(i);
             return text + "\n\n";
         }(),
         {},
         WalkEnd::kTooComplex},
        {"time", "a: b\n\n", late, WalkEnd::kTimedOut},
        {"within all", Mixed("--b\n\nx\n--b--\n"), {}, WalkEnd::kWhole},
    };
    for (const auto& each : cases) {
        WalkResult result;
        OutlineOf(Wire(each.text), Dots::kPlain, each.limits, &result);
        EXPECT_EQ(result.end, each.end) << each.name;
        EXPECT_EQ(result.why.empty(), each.end == WalkEnd::kWhole) << each.name;
    }
}

// A header that is longer than a block is one header.
TEST(Walk, HeadersLongerThanABlock) {
    for (const std::size_t size : {65530U, 65535U, 65536U, 65537U, 140000U}) {
        const Outline outline = OutlineOf("Subject: " + std::string(size, 'x') +
                                          "\r\nContent-Type: text/html\r\n\r\ny");
        EXPECT_EQ(outline.text, "(1 text/html[y])") << size;
        EXPECT_EQ(outline.ambiguous, "") << size;
        ASSERT_EQ(outline.headers.size(), 2U) << size;
        EXPECT_EQ(outline.headers[0].raw.size(), size);
    }
}

TEST(Walk, LinesLongerThanABlockAndAcrossBlocks) {
    for (const std::size_t size : {65534U, 65535U, 65536U, 65537U, 200000U}) {
        const std::string text(size, 'x');
        const Outline outline = OutlineOf("a: b\r\n\r\n" + text + "\r\n.y\r\n..z", Dots::kStuffed);
        EXPECT_EQ(outline.text, "(1 text/plain[" + text + "\r\ny\r\n.z])") << size;
    }
}

}  // namespace
