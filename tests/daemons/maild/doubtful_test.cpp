// What the engine is asked about besides a message as a whole.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>

#include "daemons/maild/antivirus/doubtful.h"
#include "daemons/maild/asked.h"
#include "text/base64.h"
#include "walk/outline.h"

namespace {

using namespace std::string_literals;

struct Asked {
    std::vector<std::string> files;
    ScanResult result;
    bool tooMany = false;
    std::string unwalked;

    bool Has(const std::string& text) const {
        return std::find(files.begin(), files.end(), text) != files.end();
    }
};

Asked AskedOf(const std::string& text) {
    Asked asked;
    const platform::File file = FileOf(text);
    maild::Questions questions(KeepingIn(asked.files), file.Size());
    const maild::WalkLimits limits;
    maild::DoubtfulParts doubtful(
        questions, {file.Descriptor(), maild::Dots::kPlain, {0, file.Size()}}, limits);
    maild::PartSink* const sinks[] = {&doubtful};
    maild::WalkMessage(file.Descriptor(), maild::Dots::kPlain, limits, sinks);
    asked.result = questions.Result();
    asked.tooMany = questions.TooMany();
    asked.unwalked = doubtful.Unwalked();
    return asked;
}

std::string Lines(const std::string& text, std::size_t width = 76) {
    std::string lines;
    for (std::size_t at = 0; at < text.size(); at += width)
        lines += text.substr(at, width) + "\r\n";
    return lines;
}

std::string Coded(const std::string& content, const std::string& coding = "base64",
                  const std::string& type = "application/zip") {
    return "Content-Type: " + type + "\r\nContent-Transfer-Encoding: " + coding + "\r\n\r\n" +
           content;
}

TEST(Doubtful, OrdinaryMailCostsNoQuestion) {
    const std::string bytes(1000, 'x');
    const struct {
        const char* name;
        std::string text;
    } cases[] = {
        {"text", Wire("Subject: a\n\nbegin with this.\nbegin 10 minutes early\nend\n")},
        {"attachment", Coded(Lines(Base64Encode(bytes)))},
        {"attachment without its fillers", Coded(Lines("eHh4eA"))},
        {"empty line behind", Coded(Lines(Base64Encode(bytes)) + "\r\n\r\n")},
        {"lines of 60", Coded(Lines(Base64Encode(bytes), 60))},
        {"bare LF", "Content-Transfer-Encoding: base64\n\neHh4\neHh4\n"},
        {"quoted-printable", Coded("a=3Db=\r\nc=20\r\n", "quoted-printable", "text/plain")},
        {"blanks at a line's end", Coded("a  \r\nb\r\n", "quoted-printable", "text/plain")},
        {"small letters", Coded("=c3=a9\r\n", "quoted-printable", "text/plain")},
        {"alternatives",
         Wire("Content-Type: multipart/alternative; boundary=b\n\n--b\n\nx\n--b\nContent-Type: "
              "text/html\nContent-Transfer-Encoding: quoted-printable\n\n<a "
              "href=3D\"x\">\n--b--\n")},
        {"report",
         Wire("Content-Type: multipart/report; boundary=b\n\n--b\n\nx\n--b\nContent-Type: "
              "message/delivery-status\n\nReporting-MTA: a\n\n--b--\n")},
        {"signed",
         Wire("Content-Type: multipart/signed; boundary=b\n\n--b\n\nx\n--b\nContent-Type: "
              "application/pgp-signature; name=signature.asc\n\n-----BEGIN PGP SIGNATURE-----\n"
              "--b--\n")},
        {"a sloppy header", Wire("Subject: a\n \nhello\nTo: b\n\nx\n")},
        {"coding in other words", Coded("x\r\n", "8-bit")},
        {"no end", Wire("Content-Type: multipart/mixed; boundary=b\n\n--b\n\nx\n")},
    };
    for (const auto& each : cases)
        EXPECT_EQ(AskedOf(each.text).files, std::vector<std::string>()) << each.name;
}

TEST(Doubtful, EachReadingIsAFile) {
    const struct {
        const char* name;
        std::string text;
        std::vector<std::string> files;
    } cases[] = {
        {"filler in the midst", Coded("YQ==YmNk\r\n"), {"abcd", "a", "a\x06&6"s}},
        {"foreign characters", Coded("YWJj!ZGVm\r\n"), {"abcdef", "abc"}},
        {"URLs", Coded("-_-_\r\n"), {"\xFB\xFF\xBF"}},
        {"groups cut by a line's end", Coded("YQ\r\nYmNk\r\n"), {"abcd"}},
        {"a line that is none", Coded("Hello: x\r\nYWJj\r\n"), {"abc"}},
        {"two codings",
         Coded("YWJj\r\n", "7bit\r\nContent-Transfer-Encoding: base64"),
         {"abc", "YWJj\r\n"}},
        {"escapes that are none",
         Coded("=ZZa=62\r\n", "quoted-printable"),
         {"=ZZab\r\n", "ZZab\r\n"}},
        {"uuencode in a text", Wire("Subject: a\n\nx\nbegin 644 a\n#86)C\n`\nend\n"), {"abc"}},
        {"two of them",
         Wire("Subject: a\n\nbegin 644 a\n#86)C\nend\nbegin 644 b\n#9&5F\nend\n"),
         {"abc", "def"}},
        {"without an end", Wire("Subject: a\n\nbegin 644 a\n#86)C\n"), {"abc"}},
        {"yEnc in a text",
         Wire("Subject: a\n\n=ybegin line=9 size=3 name=a\n\x8B\x8C\x8D\n=yend\n"),
         {"abc"}},
        {"signed without a signature",
         Wire("Content-Type: multipart/signed; boundary=b\n\n--b\n\nx\n--b--\n"),
         {Wire("Received: from spool\nMIME-Version: 1.0\nContent-Type: multipart/mixed; "
               "boundary=\"b\"\n\n--b\n\nx\n--b--\n")}},
        {"coded message",
         Coded("VG86IGEKCmI=\r\n", "base64", "message/rfc822"),
         {"Received: from spool\r\nTo: a\n\nb"}},
        {"coded multipart",
         Coded("LS1iCgp4Ci0tYi0tCg==\r\n", "base64", "multipart/mixed; boundary=b"),
         {"Received: from spool\r\nMIME-Version: 1.0\r\nContent-Type: multipart/mixed; "
          "boundary=\"b\"\r\n\r\n--b\n\nx\n--b--\n"}},
        {"structure in doubt",
         Wire("Content-Type: multipart/mixed\n\n--b\n\n" + std::string(48, 'Y') + "\n--b--\n"),
         {std::string([] {
             std::string text;
             for (int i = 0; i < 12; ++i) text += "a\x86\x18";
             return text;
         }())}},
    };
    for (const auto& each : cases) {
        const Asked asked = AskedOf(each.text);
        for (const std::string& file : each.files)
            EXPECT_TRUE(asked.Has(file)) << each.name << ": " << testing::PrintToString(file)
                                         << " of " << testing::PrintToString(asked.files);
    }
}

std::string Little(std::uint32_t number, int bytes = 4) {
    std::string text;
    for (int i = 0; i < bytes; ++i) text += static_cast<char>(number >> (8 * i));
    return text;
}
std::string Attribute(std::uint32_t id, const std::string& value) {
    return "\2" + Little(id) + Little(static_cast<std::uint32_t>(value.size())) + value + "..";
}
std::string Tnef(const std::string& attributes) {
    return "\x78\x9F\x3E\x22\1"s + '\0' + attributes;
}

TEST(Doubtful, FilesInTnef) {
    const std::string file = Attribute(0x6800F, "abc");
    const std::string cut = Attribute(0x6800F, "abcdef");
    const struct {
        const char* name;
        std::string tnef;
        std::vector<std::string> files;
    } cases[] = {
        {"two files",
         Tnef(Attribute(0x18010, "name") + file + Attribute(0x6800F, "def")),
         {"abc", "def"}},
        {"an empty attribute in front", Tnef(Attribute(0x18010, "") + file), {"abc"}},
        {"cut off", Tnef(cut.substr(0, cut.size() - 5)), {"abc"}},
        {"a length beyond the end",
         Tnef("\2" + Little(0x6800F) + Little(0xFFFFFFFF) + "abc"),
         {"abc"}},
        {"a message in the properties",
         Tnef(Attribute(0x69005, "prop" + Tnef(file))),
         {"abc", "prop" + Tnef(file)}},
        {"nothing behind the mark", Tnef(""), {}},
    };
    for (const auto& each : cases) {
        const Asked asked = AskedOf(Coded(Lines(Base64Encode(each.tnef))));
        EXPECT_EQ(asked.files.size(), each.files.size()) << each.name;
        for (const std::string& wanted : each.files) EXPECT_TRUE(asked.Has(wanted)) << each.name;
    }
}

// What is in it: tests of it alone.
TEST(Doubtful, ZipBehindAnother) {
    const std::string zip = "PK\3\4" + std::string(100, 'z') + "PK\1\2" + std::string(42, 'd') +
                            "PK\5\6" + std::string(18, '\0');
    const Asked asked = AskedOf(Coded(Lines(Base64Encode(zip + zip))));
    EXPECT_EQ(asked.files, std::vector<std::string>({zip}));
    EXPECT_EQ(AskedOf(Coded(Lines(Base64Encode(zip)))).files.size(), 0U);
}

// An element of BER; of more than 127 bytes if `form` says so: 0 short, else bytes of the length.
std::string Element(char tag, const std::string& content, int form = 0) {
    std::string text(1, tag);
    if (form == 0) text += static_cast<char>(content.size());
    if (form > 0) text += static_cast<char>(0x80 | form);
    for (int i = form; i-- > 0;) text += static_cast<char>(content.size() >> (8 * i));
    return text + content;
}

TEST(Doubtful, MessageWithinItsSignature) {
    const std::string message = "Subject: a\r\n\r\nbegin 644 a\r\n#86)C\r\n";
    const std::string front = Element(2, "\1") + Element(6, "oid");
    const std::string endless = "\x24\x80" + Element(4, message.substr(0, 9)) +
                                Element(4, message.substr(9), 2) + std::string(2, '\0');
    const struct {
        const char* name;
        std::string data;
        bool found;
    } cases[] = {
        {"one string", Element(0x30, front + Element('\xA0', Element(4, message))), true},
        {"long lengths", Element(0x30, front + Element('\xA0', Element(4, message, 4), 4), 2),
         true},
        {"in pieces, without lengths", "\x30\x80" + front + endless, true},
        {"a long tag in front", Element(0x30, "\x1F\x81\1\1x" + Element(4, message)), true},
        {"nothing of the kind", "PK no such thing", false},
        {"a length that nobody means", "\4\xFF\xFF\xFF", false},
    };
    for (const auto& each : cases) {
        const Asked asked = AskedOf(Coded(Lines(Base64Encode(each.data)), "base64",
                                          "application/pkcs7-mime; name=smime.p7m"));
        EXPECT_EQ(asked.Has("Received: from spool\r\n" + message), each.found) << each.name;
        EXPECT_EQ(asked.Has("abc"), each.found) << each.name << ": it is walked as well";
    }
}

// Invoices and other files are signed, too: what stands there for headers never ends.
TEST(Doubtful, FilesWithinASignature) {
    std::string lines;
    for (int i = 0; i < 3000; ++i) lines += "<a:n" + std::to_string(i) + "/>\r\n";
    const std::string uu = "begin 644 a\r\n#86)C\r\nend\r\n";
    const struct {
        const char* name;
        std::string file;
        bool walked;
    } cases[] = {
        {"lines", lines + uu, true},
        {"one line", "<?xml?>" + std::string(300000, 'x') + "\r\n" + uu, true},
        {"a message", lines + "Content-Type: text/plain\r\n\r\n" + uu, false},
        {"a message to some", lines + "x\rCONTENT-type: text/plain\r\n\r\n" + uu, false},
    };
    for (const auto& each : cases) {
        const Asked asked =
            AskedOf(Coded(Lines(Base64Encode(Element(0x30, Element(4, each.file, 4), 4))), "base64",
                          "application/pkcs7-mime; name=a.xml.p7m"));
        EXPECT_EQ(asked.unwalked.empty(), each.walked) << each.name;
        EXPECT_EQ(asked.Has("abc"), each.walked) << each.name;
    }
}

// Whether the engine takes it for one hangs on its first headers.
TEST(Doubtful, MessageInAMessage) {
    for (const char* header : {"To: a", "X-Any: b"}) {
        const std::string inner = Wire(std::string(header) + "\n\nx");
        const Asked asked =
            AskedOf(Wire("Content-Type: multipart/mixed; boundary=b\n\n--b\nContent-Type: "
                         "message/rfc822\n\n") +
                    inner + Wire("\n--b--\n"));
        EXPECT_EQ(asked.files, std::vector<std::string>{"Received: from spool\r\n" + inner});
    }
}

// Mail programs open it; so its parts are seen as those of a forwarded message are.
TEST(Doubtful, MessageInAFile) {
    const std::string inner = Wire(
        "Subject: in\nContent-Type: multipart/mixed; boundary=i\n\n--i\n\nhello\n--i\n"
        "Content-Type: x/y; name=a.exe\n\nx\n--i--\n");
    for (const char* type :
         {"application/octet-stream; name=a.eml", "application/octet-stream; name=A.EML",
          "x/y; name=a.mht", "x/y; name=\"a.eml .\"", "message/rfc8", "message/x"}) {
        const platform::File file = FileOf(Coded(Lines(Base64Encode(inner)), "base64", type));
        maild::Questions questions(
            [](int, long long) {
                return ScanResult{ScanOutcome::kClean, ""};
            },
            file.Size());
        const maild::WalkLimits limits;
        Outline outline;
        maild::PartSink* const others[] = {&outline};
        maild::DoubtfulParts doubtful(questions,
                                      {file.Descriptor(), maild::Dots::kPlain, {0, file.Size()}},
                                      limits, 0, others);
        maild::PartSink* const sinks[] = {&doubtful};
        maild::WalkMessage(file.Descriptor(), maild::Dots::kPlain, limits, sinks);
        EXPECT_EQ(outline.text, "(1 multipart/mixed(1.1 text/plain[hello])(1.2 x/y[x]))") << type;
        EXPECT_EQ(doubtful.Unwalked(), "");
    }
}

// Nothing is kept of parts that come behind it.
TEST(Doubtful, WhatIsFoundInAFileEndsIt) {
    const Asked asked = AskedOf(
        Wire("Content-Type: multipart/mixed; boundary=b\n\n--b\nContent-Type: x/y; name=a.eml\n\n"
             "To: a\n\nvirus\n--b\nContent-Type: x/y\n\nx\n--b\n\nx\n--b--\n"));
    EXPECT_EQ(asked.files.size(), 1U);
    EXPECT_EQ(asked.result.outcome, ScanOutcome::kInfected);
}

TEST(Doubtful, WhatIsFoundEndsIt) {
    const std::string found = Base64Encode("virus");
    const Asked asked = AskedOf(Coded("!" + found + "\r\n"));
    EXPECT_EQ(asked.result.outcome, ScanOutcome::kInfected);
    EXPECT_EQ(asked.files.size(), 1U);
}

TEST(Doubtful, QuestionsAreBounded) {
    // Files without bytes, too: each has a name.
    std::string empty;
    for (int i = 0; i < 2001; ++i) empty += "begin 644 a\r\n`\r\nend\r\n";
    EXPECT_TRUE(AskedOf("Subject: a\r\n\r\n" + empty).tooMany);
    std::string text = "Subject: a\r\n\r\n";
    for (int i = 0; i < 5000; ++i)
        text += "begin 644 a\r\n#" + std::string(1, static_cast<char>('!' + i % 60)) +
                std::string(1, static_cast<char>('!' + i / 60 % 60)) + "&5\r\nend\r\n";
    const Asked asked = AskedOf(text);
    EXPECT_TRUE(asked.tooMany);
    EXPECT_LE(asked.files.size(), 200U);
}

}  // namespace
