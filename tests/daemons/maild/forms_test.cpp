// The forms of a message: which ones there are, and what each holds.
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <set>
#include <string>
#include <vector>

#include "daemons/maild/forms/encrypted.h"
#include "daemons/maild/forms/forms.h"
#include "daemons/maild/forms/unpack.h"
#include "text/base64.h"

namespace {

constexpr char kHeader[] = "Received: from spool\r\n";

platform::File InMemory(const std::string& text) {
    platform::File file(memfd_create("test", MFD_CLOEXEC));
    EXPECT_TRUE(file.Write(text.data(), text.size()));
    return file;
}

std::string Content(const platform::File& file) {
    std::string text(static_cast<std::size_t>(file.Size()), '\0');
    EXPECT_EQ(pread(file.Descriptor(), text.data(), text.size(), 0),
              static_cast<ssize_t>(text.size()));
    return text;
}

Survey SurveyOf(const std::string& text) {
    Survey survey;
    EXPECT_TRUE(SurveyMessage(InMemory(text).Descriptor(), survey));
    return survey;
}

std::vector<std::string> TextsOf(const std::string& text, Transfer transfer) {
    const platform::File file = InMemory(text);
    Survey survey;
    EXPECT_TRUE(SurveyMessage(file.Descriptor(), survey));
    std::vector<std::string> texts;
    for (const Form& form : FormsOf(survey, transfer)) {
        const std::string made = Content(MakeForm(file.Descriptor(), form));
        EXPECT_TRUE(made.starts_with(kHeader));
        texts.push_back(made.substr(sizeof kHeader - 1));
    }
    return texts;
}

// A receiver, the slow way: what it takes for a line's start, and which dots it takes away.
struct Receiver {
    bool lf;
    bool cr;
    bool doubledOnly;
};
std::string Receive(const std::string& text, const Receiver& receiver) {
    std::string out;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const char before = i > 0 ? text[i - 1] : '\n';
        const bool afterCrLf = i == 0 || (i > 1 && text[i - 2] == '\r' && before == '\n');
        const bool start = afterCrLf || (before == '\n' && receiver.lf && !afterCrLf) ||
                           (before == '\r' && text[i] != '\n' && receiver.cr);
        const bool doubled = i + 1 < text.size() && text[i + 1] == '.';
        if (text[i] == '.' && start && (doubled || !receiver.doubledOnly)) {
            // The dot behind it is text, whatever it looks like.
            if (doubled) out += text[++i];
            continue;
        }
        out += text[i];
        if (text[i] == '\r' && receiver.cr && (i + 1 == text.size() || text[i + 1] != '\n'))
            out += '\n';
    }
    return out;
}

std::string Random(unsigned& state, std::size_t length) {
    static constexpr char kBytes[] = "..\r\n\r\na.\n\r";
    std::string text;
    while (text.size() < length) {
        state = state * 1664525 + 1013904223;
        text += kBytes[state >> 16 & 7];
    }
    return text;
}

TEST(Forms, CoverEveryReceiver) {
    constexpr unsigned kSeed = 7;
    unsigned state = kSeed;
    for (int run = 0; run < 4000; ++run) {
        const std::string text = Random(state, 1 + static_cast<std::size_t>(run % 24));
        const std::vector<std::string> forms = TextsOf(text, Transfer::kData);
        const std::set<std::string> made(forms.begin(), forms.end());
        for (const bool lf : {false, true})
            for (const bool cr : {false, true})
                for (const bool doubledOnly : {false, true})
                    EXPECT_TRUE(made.contains(Receive(text, {lf, cr, doubledOnly})))
                        << "seed " << kSeed << " run " << run << " lf " << lf << " cr " << cr
                        << " doubled " << doubledOnly << ": " << testing::PrintToString(text);
    }
}

TEST(Forms, AreAsFewAsThereAreDifferentOnes) {
    const struct {
        const char* name;
        std::string text;
        Transfer transfer;
        std::size_t forms;
    } cases[] = {
        {"ordinary", "Subject: a\r\n\r\nb.c\r\n", Transfer::kData, 1},
        {"stuffed dots", "a\r\n..b\r\n", Transfer::kData, 2},
        {"single and doubled", "a\r\n..b\r\n.c\r\n", Transfer::kData, 3},
        {"bare LF alone", "a\n\nb\n", Transfer::kData, 1},
        {"dots behind bare LF", "a\n.b\n", Transfer::kData, 2},
        {"bare CR", "a\rb\r\n", Transfer::kData, 2},
        {"chunks with dots", "a\r\n.b\r\n..c\r\n", Transfer::kChunks, 1},
        {"chunks, dots behind LF", "a\n.b\r\n", Transfer::kChunks, 2},
        {"unknown, dots", "a\r\n.b\r\n", Transfer::kUnknown, 2},
        {"indented", " a\r\n", Transfer::kData, 2},
    };
    for (const auto& each : cases)
        EXPECT_EQ(TextsOf(each.text, each.transfer).size(), each.forms) << each.name;
}

TEST(Forms, LineEndsAndDotsAreMetAcrossBlocks) {
    for (const std::size_t at : {65533U, 65534U, 65535U, 65536U, 65537U}) {
        const std::string text = std::string(at, 'x') + "\r\n..y\r\n.z\rUEsDBA\r\n";
        const Survey survey = SurveyOf(text);
        EXPECT_EQ(survey.dots, DoubledDot(kCrLf) | SingleDot(kCrLf)) << at;
        EXPECT_TRUE(survey.bareCr) << at;
        EXPECT_EQ(survey.firstArchive, static_cast<long long>(text.find('U'))) << at;
        const std::vector<std::string> texts = TextsOf(text, Transfer::kData);
        EXPECT_EQ(texts[1].substr(at), "\r\n.y\r\nz\rUEsDBA\r\n") << at;
    }
}

TEST(Forms, KnownStartsAndIndentation) {
    EXPECT_TRUE(SurveyOf("Received: x\r\n").known);
    EXPECT_FALSE(SurveyOf("received: x\r\n").known);
    EXPECT_FALSE(SurveyOf("X-Received: x\r\n").known);
    for (const char* text : {" a", "\ta", "\r\na", "\na", ".\r\na", ". a"})
        EXPECT_TRUE(SurveyOf(text).indented) << testing::PrintToString(text);
    EXPECT_EQ(TextsOf("\r\n \r\nTo: a\r\n", Transfer::kData)[1], "To: a\r\n");
}

// In lines, as mail has it.
std::string Coded(const std::string& bytes) {
    std::string out = Base64Encode(bytes);
    for (std::size_t at = 76; at < out.size(); at += 78) out.insert(at, "\r\n");
    return out;
}

std::string ZipFile(bool encrypted, const std::string& name = "a", unsigned size = 5) {
    std::string file("PK\3\4\x14\0", 6);
    file += encrypted ? '\1' : '\0';
    file += std::string(11, '\0');  // flags, method, time, date, checksum
    file += static_cast<char>(size);
    file += std::string(3, '\0') + static_cast<char>(size) + std::string(3, '\0');
    file += static_cast<char>(name.size());
    return file + std::string(3, '\0') + name + std::string(size, 'x');
}

std::string SevenZip(const std::string& header) {
    std::string file("7z\xBC\xAF\x27\x1C\0\4\0\0\0\0", 12);
    file += '\x0A';
    file += std::string(19, '\0') + std::string(10, 'd');
    return file + header;
}

using namespace std::string_literals;

TEST(Encrypted, Parts) {
    const struct {
        const char* name;
        std::string part;
        const char* kind;
        bool counts;
        bool whole;
    } cases[] = {
        {"plain zip", ZipFile(false), "", false, false},
        {"encrypted zip", ZipFile(true), "Zip", true, true},
        {"plain file beside it", ZipFile(true) + ZipFile(false), "Zip", true, false},
        {"plain 7z", SevenZip("\1\4\6\0"s), "", false, false},
        {"7z with AES", SevenZip("\1\4\x06\xF1\x07\x01\0"s), "7z", true, true},
        {"rar 5, headers", "Rar!\x1A\x07\x01\x00....\x21\x04\x00"s, "RAR", true, true},
        {"rar 5, plain", "Rar!\x1A\x07\x01\x00....\x0A\x01\x05"s, "", false, false},
        {"rar 4, first file",
         "Rar!\x1A\x07\x00..\x73\x00\x00\x0D\x00......\x11\x22\x74\x04\x80\x20\x00"s, "RAR", true,
         false},
        {"pdf", "%PDF-1.4\n1 0 obj\n<< /Encrypt 2 0 R >>\n", "PDF", false, true},
    };
    for (const auto& each : cases) {
        const std::string front = "To: a\r\n\r\ntext\r\n--b\r\n\r\n";
        const std::string text = front + Coded(each.part) + "\r\n--b--\r\n";
        const platform::File file = InMemory(text);
        std::vector<EncryptedPart> parts;
        ASSERT_TRUE(FindEncrypted(file.Descriptor(), 0, parts));
        EXPECT_EQ(SurveyOf(text).firstArchive, static_cast<long long>(front.size())) << each.name;
        ASSERT_EQ(parts.size(), each.kind[0] == '\0' ? 0U : 1U) << each.name;
        if (parts.empty()) continue;
        EXPECT_EQ(parts[0].kind, each.kind) << each.name;
        EXPECT_EQ(parts[0].counts, each.counts) << each.name;
        EXPECT_EQ(parts[0].whole, each.whole) << each.name;
        EXPECT_EQ(parts[0].begin, static_cast<long long>(front.size())) << each.name;
        EXPECT_LE(parts[0].end, static_cast<long long>(text.size()) - 7) << each.name;
    }
}

// Archives of several small files whose list is packed; they can't be made without a 7z program.
TEST(Encrypted, SevenZipWithAPackedList) {
    constexpr char kAll[] =
        "N3q8ryccAASqdbvxzQAAAAAAAAAiAAAAAAAAADGj8+KGxygPFbgpUzyxBdwDaBAgX/mqlzWa8vSGxWRD/"
        "gVwFwAAgTMH"
        "rg/"
        "QDrA8nzkQnJ+m1TPasi6w6VNt9x5F9CfGorOPElhr+ETzL5ZF8F8dTB94tvV13CCA58tmZjRplcUUDhDmGUcJu5OF"
        "CVdpQgiYnvL2LO6dhmJrCXabywqq+U86s40/Q3/ZxPWsez/ZZH/qDH6r3skRcX6LKUASyrhp2pCwCDgkzuVp3vQTl/"
        "BY"
        "hoT1k3N5bXT/Y3sobrXKxbZK9gNVfFL6qI+4AAAAFwYgAQmArQAHCwEAASMDAQEFXQAQAAAMgY4KARBvN10AAA==";
    constexpr char kOneOfFour[] =
        "N3q8ryccAASYRjVnzAAAAAAAAAAiAAAAAAAAAH/"
        "6WEfgABQAEV0AOhlLeBA1egKqIKaGYSowamAANvG5Ssg0+MlC1ing"
        "f7TCHwAAgTMHrjGZ5IA5WqO60ycP86La07c6RqNu4Q/zDXy0cf214PO/"
        "aW2NJT0SjbWSFrEuzfgpx9nH2bX87MgdDg9l"
        "SOyFynlXTrCtkE4u1IYAl4AymcaYaiCVql3Ov8Vqwmrl2BP8jzDp+"
        "KxB1zqOgDCcw4YqIMo44rENYoZYJ822An0QATk/"
        "QmP8/CwpbkmEHhHYSOFQK3UvjEwNM3SmHI8AAAAXBikBCYCjAAcLAQABIwMBAQVdABAAAAyBLgoBRWKB7gAA";
    for (const std::string coded : {kAll, kOneOfFour}) {
        std::vector<EncryptedPart> parts;
        ASSERT_TRUE(FindEncrypted(InMemory("a\r\n\r\n" + coded + "\r\n").Descriptor(), 0, parts));
        ASSERT_EQ(parts.size(), coded == kAll ? 1U : 0U);
        if (parts.empty()) continue;
        EXPECT_EQ(parts[0].kind, "7z");
        EXPECT_TRUE(parts[0].counts && parts[0].whole);
    }
}

TEST(Encrypted, DotsInFrontAndPartsBehindEachOther) {
    std::string coded = Coded(ZipFile(true) + std::string(200, 'y'));
    for (std::size_t at = 0; (at = coded.find('\n', at)) != std::string::npos; ++at)
        coded.insert(at + 1, ".");
    const std::string text = "." + coded + "\r\n--b\r\n" + Coded(ZipFile(true)) + "\r\n--b\r\n";
    std::vector<EncryptedPart> parts;
    ASSERT_TRUE(FindEncrypted(InMemory(text).Descriptor(), 0, parts));
    EXPECT_EQ(parts.size(), 2U);
    EXPECT_EQ(SurveyOf(text).firstArchive, 1);
}

TEST(Unpack, OnlyPlainTextIsBeyondDoubt) {
    const struct {
        const char* name;
        std::string text;
        bool could;
    } cases[] = {
        {"text", "Subject: a\r\n\r\nb c\r\n", false},
        {"quoted-printable text",
         "Content-Transfer-Encoding: quoted-printable\r\n\r\ncaf=C3=A9 =3D=20\r\nlo=\r\nng\r\n",
         false},
        {"equals signs without the coding", "a=50=4B\r\n", false},
        {"quoted-printable letters", "x: quoted-printable\r\n\r\n=50K\r\n", true},
        {"escapes in front of the word", "PK=03=04\r\nx: Quoted-Printable\r\n", true},
        {"base64", "content-transfer-encoding: BASE64\r\n", true},
        {"uuencode", "text\r\nbegin 644 a\r\n", true},
        {"to begin within a line", "we begin now\r\n", false},
        {"a control byte", std::string("a\0b", 3), true},
        {"pdf", "\r\n%PDF-1.4\r\n", true},
    };
    for (const auto& each : cases)
        EXPECT_EQ(CouldUnpack(InMemory(each.text).Descriptor()), each.could) << each.name;
}

}  // namespace
