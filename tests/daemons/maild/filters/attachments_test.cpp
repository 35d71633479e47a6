// Which parts are attachments, and what of a rule has to match.
#include <sys/mman.h>

#include "daemons/maild/attachments/filter.h"
#include "daemons/maild/walk/walk.h"
#include "packing.h"
#include "platform/file.h"
#include "support/instance.h"

namespace {

using namespace std::string_literals;
using maild::AttachmentRule;
using maild::AttachmentRules;

const std::string kProgram = "MZ\x90\0\3\0\0\0"s + std::string(200, '\0');

std::string Filter(const std::string& message, const AttachmentRules& rules) {
    maild::AttachmentFilter filter(rules,
                                   std::chrono::steady_clock::now() + std::chrono::seconds(30));
    Show(message, filter);
    std::string findings;
    for (const maild::Finding& each : filter.Findings()) {
        findings += each.rule + " " + each.part + " " + each.reason + "; ";
        EXPECT_LT(each.range.begin, each.range.end);
        EXPECT_EQ(message.compare(static_cast<std::size_t>(each.range.end), 3, "--b") == 0 ||
                      message.compare(static_cast<std::size_t>(each.range.end), 4, "\n--b") == 0 ||
                      each.range.end == static_cast<long long>(message.size()),
                  true);
    }
    return findings;
}

AttachmentRule Rule(const char* name, const char* file, const char* declared = "",
                    const char* real = "") {
    AttachmentRule rule;
    rule.name = name;
    rule.fileName = maild::NamePatterns(file);
    rule.declaredType = maild::NamePatterns(declared);
    rule.realType = maild::NamePatterns(real);
    return rule;
}

std::string Mixed(const std::string& parts) {
    return "Subject: a\nContent-Type: multipart/mixed; boundary=b\n\n" + parts + "--b--\n";
}

TEST(Attachments, WhichPartsTheyAre) {
    const AttachmentRules all{{Rule("all", "")}, {}};
    const struct {
        const char* name;
        std::string message;
        const char* findings;
    } cases[] = {
        {"a text", "Subject: a\n\nhello\n", ""},
        {"HTML with script", "Content-Type: text/html\n\n<html><script>x</script></html>\n", ""},
        {"a text that begins as a program does", "Subject: a\n\nMZ is a newspaper\n", ""},
        {"a text that is a script", "Subject: a\n\n#!/bin/sh\n", ""},
        {"two texts", Mixed("--b\n\nx\n--b\nContent-Type: text/html\n\n<b>x</b>\n"), ""},
        {"a text with a name", Mixed("--b\nContent-Type: text/plain; name=a.txt\n\nx\n"),
         "all 1 a.txt; "},
        {"a text as an attachment", Mixed("--b\nContent-Disposition: attachment\n\nx\n"),
         "all 1 a part of type text/plain; "},
        {"no text", Mixed("--b\nContent-Type: image/png\n\nx\n"),
         "all 1 a part of type image/png; "},
        {"the whole message", "Content-Type: application/pdf; name=a.pdf\n\n%PDF-\n",
         "all 1 a.pdf; "},
        {"a program that calls itself a text",
         Mixed("--b\nContent-Transfer-Encoding: base64\n\n" + Base64Encode(kProgram) + "\n"),
         "all 1 a part of type text/plain; "},
        {"a forwarded message with a name",
         Mixed("--b\nContent-Type: message/rfc822; name=a.eml\n\nSubject: b\n\nhello\n"),
         "all 1 a.eml; "},
        {"in a forwarded message",
         Mixed("--b\nContent-Type: message/rfc822\n\nContent-Type: image/png; name=a.png\n\nx\n"),
         "all 1.1 a.png; "},
    };
    for (const auto& each : cases) {
        SCOPED_TRACE(each.name);
        EXPECT_EQ(Filter(each.message, all), each.findings);
    }
}

TEST(Attachments, WhatOfARuleMatches) {
    const std::string program = Mail({{"a.pdf", kProgram}}, "application/pdf");
    AttachmentRule large = Rule("r", "");
    large.minSize = static_cast<long long>(kProgram.size());
    AttachmentRule larger = large;
    ++*larger.minSize;
    const struct {
        const char* name;
        AttachmentRule rule;
        bool matches;
    } cases[] = {
        {"name", Rule("r", "*.pdf"), true},
        {"name, but not declared type", Rule("r", "*.pdf", "image/*"), false},
        {"name and declared type", Rule("r", "*.pdf", "application/*"), true},
        {"real type by the bytes", Rule("r", "", "", "application/x-dosexec"), true},
        {"not the declared type", Rule("r", "", "", "application/pdf"), false},
        {"all of them", Rule("r", "a.*", "application/pdf", "image/png;APPLICATION/X-DOS*"), true},
        {"as large", large, true},
        {"larger", larger, false},
    };
    for (const auto& each : cases) {
        SCOPED_TRACE(each.name);
        EXPECT_EQ(!Filter(program, {{each.rule}, {}}).empty(), each.matches);
    }
    // What lies in an archive has no declared type.
    EXPECT_EQ(Filter(Mail({{"f.zip", Zip({{"a.exe", "x"}})}}), {{Rule("r", "*.exe", "*")}, {}}),
              "");
}

TEST(Attachments, TheFirstRuleDecidesAboutEach) {
    AttachmentRule pass = Rule("1", "*.pdf");
    pass.action = maild::Action::kPass;
    const AttachmentRules rules{{pass, Rule("2", "*.exe;*.pdf")}, {}};
    EXPECT_EQ(Filter(Mail({{"a.pdf", "x"}, {"b.exe", "x"}, {"c.txt", "x"}}), rules),
              "1 2 a.pdf; 2 3 b.exe; ");
}

// libmagic takes what begins with a jump for a program.
TEST(Attachments, NoProgramsByChance) {
    const AttachmentRules rules{{Rule("r", "", "", "application/x-dosexec")}, {}};
    const std::string files[] = {"\xB8tat;nom\n1;2\n", "\xEBtat;nom\n1;2\n" + std::string(80, '!'),
                                 "\xB8\0\x4C\xCE\x21"s + std::string(80, '\x21'), "MZ;Name\n1;2\n"};
    for (const std::string& each : files) EXPECT_EQ(Filter(Mail({{"a.bin", each}}), rules), "");
}

std::string TooComplex(const std::string& message) {
    const AttachmentRules rules{{Rule("none", "*.none")}, {}};
    maild::AttachmentFilter filter(rules,
                                   std::chrono::steady_clock::now() + std::chrono::seconds(30));
    Show(message, filter);
    return filter.TooComplex().substr(0, filter.TooComplex().find(':'));
}

std::string InLines(const std::string& coded, std::size_t width) {
    std::string lines;
    for (std::size_t at = 0; at < coded.size(); at += width)
        lines += coded.substr(at, width) + "\n";
    return lines;
}

// To who decodes each line by itself there is another file.
TEST(Attachments, ArchivesInLinesThatEndAnywhere) {
    const std::string head = "Content-Type: application/zip\nContent-Transfer-Encoding: base64\n\n";
    const std::string bytes = Zip({{"a.exe", kProgram}, {"b", std::string(2000, 'x')}});
    const std::string zip = Base64Encode(bytes);
    const std::string broken = Base64Encode("PK\3\4" + std::string(2000, '\2'));
    const AttachmentRules rules{{Rule("exe", "*.exe")}, {}};
    for (const std::size_t width : {45U, 57U, 61U, 70U, 73U, 75U, 77U, 998U}) {
        SCOPED_TRACE(width);
        const std::string lines = head + InLines(zip, width);
        EXPECT_EQ(TooComplex(lines), "");
        EXPECT_TRUE(Filter(lines, rules).starts_with("exe 1 a.exe in a part"));
        EXPECT_EQ(TooComplex(head + InLines(broken, width)), "an archive can't be read");
        const std::string filled = head + zip.substr(0, 45) + "=\n" + zip.substr(45);
        EXPECT_NE(TooComplex(filled), "") << "broken to everybody";
    }
}

// Servers return the beginning of a message.
TEST(Attachments, ArchivesThatABounceCuts) {
    const std::string zip = Zip({{"a", std::string(3000, 'x')}, {"b", std::string(3000, 'y')}});
    const std::string sevenZip = Pack("7zip", "none", {{"a", std::string(3000, 'x')}});
    const auto bounce = [](const std::string& file, const std::string& end) {
        return Mixed(
            "--b\n\nreturned\n--b\nContent-Type: message/rfc822\n\nContent-Type: "
            "multipart/mixed; boundary=c\n\n--c\nContent-Type: application/zip\n"
            "Content-Transfer-Encoding: base64\n\n" +
            InLines(Base64Encode(file), 76) + end);
    };
    const struct {
        const char* name;
        std::string message;
        const char* tooComplex;
    } cases[] = {
        {"zip", bounce(zip.substr(0, zip.size() - 150), ""), ""},
        {"zip, in its first file", bounce(zip.substr(0, 40), ""), ""},
        {"7z", bounce(sevenZip.substr(0, sevenZip.size() - 20), ""), ""},
        {"whole, and unreadable",
         bounce("PK\3\4" + std::string(2000, 'x') + zip.substr(zip.size() - 22), ""),
         "an archive can't be read"},
        {"with a file in it that is whole and unreadable",
         bounce(
             Zip({{"a.rar", "Rar!\x1A\7\0"s + std::string(900, 'x')}, {"b", std::string(900, 'y')}})
                 .substr(0, 100),
             ""),
         "an archive can't be read"},
        {"another kind", bounce("Rar!\x1A\7\0" + std::string(60, 'x'), ""),
         "an archive can't be read"},
        {"in a message that ends", bounce(zip.substr(0, zip.size() - 150), "--c--\n"),
         "a file in an archive can't be read"},
        {"in the message itself",
         "Content-Type: application/zip\nContent-Transfer-Encoding: base64\n\n" +
             Base64Encode(zip.substr(0, zip.size() - 150)),
         "a file in an archive can't be read"},
    };
    for (const auto& each : cases)
        EXPECT_EQ(TooComplex(each.message), each.tooComplex) << each.name;
}

TEST(Attachments, RealTypes) {
    const struct {
        const char* name;
        std::string data;
        const char* type;
    } cases[] = {
        {"program of Windows", kProgram, "application/x-dosexec"},
        {"ELF",
         "\x7F"
         "ELF\2\1\1"s,
         "application/x-executable"},
        {"Mach-O", "\xCF\xFA\xED\xFE\7\0\0\1"s, "application/x-executable"},
        {"script", "#!/bin/sh\necho\n", "text/x-script"},
        {"batch file", "\r\n@Echo Off\r\ndel *\r\n", "text/x-script"},
        {"shortcut", "L\0\0\0\1\x14\2\0\0\0\0\0\xC0\0\0\0\0\0\0\x46"s, "application/x-ms-shortcut"},
        {"OLE", "\xD0\xCF\x11\xE0\xA1\xB1\x1A\xE1" + std::string(600, '\0'),
         "application/x-ole-storage"},
        {"OLE with macros",
         "\xD0\xCF\x11\xE0\xA1\xB1\x1A\xE1" + std::string(70000, '\0') +
             "_\0V\0B\0A\0_\0P\0R\0O\0J\0E\0C\0T\0"s,
         "application/x-office-macros"},
        {"HTML with script", "<!DOCTYPE html><html><body><ScRiPt>x()</script>",
         "application/x-html-script"},
        {"HTML with a handler", "<html><body onload = 'x()'>", "application/x-html-script"},
        {"HTML with a link that runs", "<html><a href='JavaScript:x()'>",
         "application/x-html-script"},
        {"script far behind", "<html>" + std::string(200000, ' ') + "<script>",
         "application/x-html-script"},
        {"SVG with script", "<?xml version='1.0'?><svg xmlns='x'><script>x()</script></svg>",
         "application/x-html-script"},
        {"SVG", "<svg xmlns='http://www.w3.org/2000/svg'></svg>", "image/svg+xml"},
        {"archive", Zip({{"a", "b"}}), "application/x-archive"},
        {"disk image", std::string(0x8001, '\0') + "CD001" + std::string(4096, '\0'),
         "application/x-iso9660-image"},
        {"a picture, by libmagic alone", "GIF89a\1\0\1\0\0\0\0"s, "image/gif"},
        {"a program of DOS, by libmagic alone", "\xB8\0\x4C\xCD\x21"s + std::string(80, '\x21'),
         "application/x-dosexec"},
        {"HTML behind words, by libmagic alone", "see\n<html><body><script>x()</script>",
         "application/x-html-script"},
        {"a text, by libmagic alone", "#include <a.h>\nint main() { return 0; }\n", "text/x-c"},
    };
    for (const auto& each : cases) {
        SCOPED_TRACE(each.name);
        const AttachmentRules rules{{Rule("r", "", "", each.type)}, {}};
        EXPECT_EQ(Filter(Mail({{"a.bin", each.data}}), rules), "r 2 a.bin; ");
        EXPECT_EQ(
            Filter(Mail({{"a.bin", "Just a text on <html> and scripts: one = two.\n"}}), rules),
            "");
    }
}

// What readers take out of a text, or of the form in which one program sends attachments.
std::string Uuencode(const std::string& bytes) {
    std::string text;
    for (std::size_t at = 0; at < bytes.size(); at += 45) {
        std::string line = bytes.substr(at, 45);
        text += static_cast<char>(' ' + line.size());
        line.resize((line.size() + 2) / 3 * 3);
        for (std::size_t i = 0; i < line.size(); i += 3) {
            unsigned group = 0;
            for (std::size_t k = 0; k < 3; ++k)
                group = group << 8 | static_cast<unsigned char>(line[i + k]);
            for (const int shift : {18, 12, 6, 0})
                text += static_cast<char>(' ' + static_cast<int>(group >> shift & 0x3F));
        }
        text += '\n';
    }
    return text;
}

TEST(Attachments, FilesWithinAPart) {
    const AttachmentRules rules{
        {Rule("name", "*.exe"), Rule("type", "", "", "application/x-dosexec")}, {}};
    const std::string coded = "%35J0  , \n`\nend\n";  // a program's first bytes
    EXPECT_EQ(Filter("Subject: a\n\nsee\nbegin 644 my file.exe\n" + coded, rules),
              "name 1 my file.exe in a part of type text/plain; ");
    for (const char* blanks : {" ", "   ", " \r"})
        EXPECT_EQ(Filter("Subject: a\n\nbegin 644" + (blanks + ("\n" + coded)), rules),
                  "type 1 a file in a part of type text/plain; ");
    EXPECT_EQ(Filter("Subject: a\n\nsee\nbegin 644 a.txt\n" + coded, rules),
              "type 1 a.txt in a part of type text/plain; ");
    EXPECT_EQ(
        Filter("Subject: a\n\nbegin 644 a\n#0V%T\n`\nend\nbegin 644 b.exe\n#0V%T\n`\nend\n", rules),
        "name 1 b.exe in a part of type text/plain; ")
        << "with the same bytes as another one";
    EXPECT_EQ(
        Filter("Subject: a\n\n=ybegin line=128 size=2 name=a b.exe\nxx\n=yend size=2\n", rules),
        "name 1 a b.exe in a part of type text/plain; ");
    EXPECT_EQ(Filter("Content-Type: application/x-y\nContent-Transfer-Encoding: x-uuencode\n\n"
                     "begin 644 a.exe\n" +
                         coded,
                     rules),
              "type 1 a part of type application/x-y; name 1 a.exe in a part of type "
              "application/x-y; ");
    EXPECT_EQ(
        Filter("Subject: a\n\nbegin 644 m.eml\n" + Uuencode(Mail({{"a.exe", "x"}})) + "`\nend\n",
               rules),
        "name 1 a.exe in m.eml in a part of type text/plain; ");
    const auto number = [](std::size_t value) {
        std::string bytes;
        for (int i = 0; i < 4; ++i) bytes += static_cast<char>(value >> (8 * i) & 0xFF);
        return bytes;
    };
    const std::string tnef =
        "\x78\x9F\x3E\x22\1\0\2"s + number(0x6800F) + number(kProgram.size()) + kProgram + "\0\0"s;
    EXPECT_EQ(Filter(Mail({{"winmail.dat", tnef}}), rules), "type 2 a file in winmail.dat; ");
    // A text for one reader, a container for another: its files have no names in the text.
    EXPECT_EQ(Filter("Content-Type: text/plain\nContent-Transfer-Encoding: base64\n\n" +
                         Base64Encode(tnef),
                     rules),
              "type 1 a file in a part of type text/plain; ");
}

// Of base64 that readers end at different places each reading is looked at.
TEST(Attachments, EachReadingOfABrokenCoding) {
    const std::string text = Mixed(
        "--b\nContent-Type: application/pdf; name=a\nContent-Transfer-Encoding: base64\n\nAA==\n" +
        Base64Encode(kProgram) + "\n");
    const AttachmentRules rules{{Rule("r", "", "", "application/x-dosexec")}, {}};
    EXPECT_EQ(Filter(text, rules), "");
    const std::string url =
        Mixed("--b\nContent-Type: application/pdf; name=a\nContent-Transfer-Encoding: base64\n\n-" +
              Base64Encode(kProgram) + "\n");
    EXPECT_EQ(Filter(url, rules), "r 1 a; ");
}

// However many attachments a mild rule has matched.
TEST(Attachments, Many) {
    AttachmentRules rules{{Rule("mild", "a*"), Rule("strict", "*.exe")}, {}};
    std::string parts;
    for (int i = 0; i < 150; ++i)
        parts += "--b\nContent-Type: x/y; name=a" + std::to_string(i) + "\n\nx\n";
    parts += "--b\nContent-Type: x/y; name=b.exe\n\nx\n";
    rules.rules.front().action = maild::Action::kPass;
    EXPECT_NE(Filter(Mixed(parts), rules).find("strict 151 b.exe; "), std::string::npos);
    rules.rules.front().action = maild::Action::kRemove;
    const std::string removed = Filter(Mixed(parts), rules);
    EXPECT_NE(removed.find("mild 150 a149; "), std::string::npos);
    EXPECT_NE(removed.find("strict 151 b.exe; "), std::string::npos);
}

}  // namespace
