// What lies in archives: found under any nesting and packing, told where it can't be read.
#include "filtering.h"
#include "support/instance.h"
#include "text/ascii.h"

namespace {

using namespace std::string_literals;
using maild::AttachmentRules;

// Each with a text as `a.exe`, stored: nothing here writes them.
const std::string kRar4 =
    "Rar!\032\007\000\317\220s\000\000\015\000\000\000\000\000\000\000"
    "\235\214t\000\200%\000\004\000\000\000\004\000\000\000\003\307\247\213;"
    "!\000\000\000\0240\005\000\244\201\000\000a.exetex"
    "t\304={\000@\007\000"s;
const std::string kRar5 =
    "Rar!\032\007\001\000\305\03232\003\001\000\000c\212^\021"
    "\024\002\002\004\004\004\244\203\002\307\247\213;\000\001\005a.ex"
    "etext\031\262:5\003\005\000\000"s;

TEST(Archives, FoundInAllOfThem) {
    AttachmentRules rules{{NameRule("exe", "*.exe")}, {}};
    const std::vector<Packed> files{{"readme.txt", "hello"}, {"dir/a.exe", "text"}};
    const struct {
        const char* name;
        const char* file;
        std::string data;
        const char* findings;
    } cases[] = {
        {"zip", "f.zip", Zip(files), "exe: a.exe in f.zip; "},
        {"zip by another name", "f.dat", Zip(files), "exe: a.exe in f.dat; "},
        {"7z", "f.7z", Pack("7zip", "none", files), "exe: a.exe in f.7z; "},
        {"tar", "f.tar", Pack("ustar", "none", files), "exe: a.exe in f.tar; "},
        {"tar.gz", "f.tgz", Pack("ustar", "gzip", files), "exe: a.exe in f.tgz; "},
        {"tar.xz", "f.bin", Pack("ustar", "xz", files), "exe: a.exe in f.bin; "},
        {"tar.zst", "f.zst", Pack("ustar", "zstd", files), "exe: a.exe in f.zst; "},
        {"gz of one file", "a.exe.gz", Pack("raw", "gzip", {{"x", "text"}}),
         "exe: a.exe in a.exe.gz; "},
        {"bz2 of one file", "A.EXE.bz2", Pack("raw", "bzip2", {{"x", "text"}}),
         "exe: A.EXE in A.EXE.bz2; "},
        {"rar of old", "f.rar", kRar4, "exe: a.exe in f.rar; "},
        {"rar", "f.rar", kRar5, "exe: a.exe in f.rar; "},
        {"iso", "f.iso", Pack("iso9660", "none", files), "exe: A.EXE in f.iso; "},
        {"zip in zip in tar", "f.tar",
         Pack("ustar", "none", {{"a.zip", Zip({{"b.zip", Zip(files)}})}}),
         "exe: a.exe in b.zip in a.zip in f.tar; "},
        {"behind a program", "setup.bin", kProgram + Zip(files), "exe: a.exe in setup.bin; "},
        {"behind something else", "f.zip", Random(3000) + Zip(files), "exe: a.exe in f.zip; "},
        {"large", "f.zip", Zip({{"big", Random(1 << 20)}, {"a.exe", "x"}}),
         "exe: a.exe in f.zip; "},
        {"tricky name", "f.zip", Zip({{"a.e\u200Bxe. ", "x"}}), "exe: a.e\u200Bxe.  in f.zip; "},
        {"no such file", "f.zip", Zip({{"a.txt", "x"}}), ""},
        {"empty zip", "f.zip", Zip({}), ""},
    };
    for (const auto& each : cases) {
        SCOPED_TRACE(each.name);
        const Result result = Filter(Mail({{each.file, each.data}}), rules);
        if (std::string(each.name) == "iso") {
            EXPECT_NE(result.findings.find(" in f.iso"), std::string::npos) << result.findings;
        } else {
            EXPECT_EQ(result.findings, each.findings);
        }
        EXPECT_EQ(result.tooComplex, "");
        EXPECT_EQ(result.encrypted, "");
    }
}

// Called otherwise before the file than in the list at the end.
// A folder that has bytes: to pass over them costs as much as to read them.
TEST(Archives, FoldersWithBytes) {
    std::string header = Pack("ustar", "none", {{"d", ""}}).substr(0, 512);
    header.replace(124, 11, "77777777777");  // 8 GiB
    header[156] = 'D';
    header.replace(148, 8, 8, ' ');
    unsigned sum = 0;
    for (const char c : header) sum += static_cast<unsigned char>(c);
    char digits[8];
    std::snprintf(digits, sizeof digits, "%06o", sum);
    header.replace(148, 7, digits, 7);
    const std::string packed = Pack("raw", "gzip", {{"f", header + std::string(40 << 20, '\0')}});
    const AttachmentRules rules{{NameRule("exe", "*.exe")}, {.maxBytes = 16 << 20}};
    EXPECT_EQ(Filter(Mail({{"f.tgz", packed}}), rules).tooComplex,
              "more bytes in archives than MaxArchiveBytes");
}

TEST(Archives, RealTypesOfWhatLiesInThem) {
    AttachmentRules rules{{TypeRule("macros", "application/x-office-macros"),
                           TypeRule("programs", "application/x-dosexec;application/x-executable")},
                          {}};
    EXPECT_EQ(Filter(Mail({{"f.zip", Zip({{"a.jpg", kProgram}})}}), rules).findings,
              "programs: a.jpg in f.zip; ");
    EXPECT_EQ(
        Filter(Mail({{"a.doc", Zip({{"word/vbaProject.bin", "x"}, {"a.xml", "<a/>"}})}}), rules)
            .findings,
        "macros: a.doc; ");
    const std::string document = Zip({{"word/document.xml", "<a/>"}, {"word/vbaProject.bin", "x"}});
    EXPECT_EQ(
        Filter(Mail({{"f.tar", Pack("ustar", "none", {{"a.docx", document}})}}), rules).findings,
        "macros: a.docx in f.tar; ");
}

TEST(Archives, Bounds) {
    const auto why = [](const std::string& data, const maild::ArchiveLimits& limits,
                        const char* name = "f.zip") {
        AttachmentRules rules{{NameRule("exe", "*.exe")}, limits};
        return Filter(Mail({{name, data}}), rules).tooComplex;
    };
    const std::string three = Zip({{"a.zip", Zip({{"b.zip", Zip({{"c", "x"}})}})}});
    EXPECT_EQ(why(three, {.maxDepth = 3}), "");
    EXPECT_EQ(why(three, {.maxDepth = 2}), "archives deeper than MaxArchiveDepth");
    const std::string four = Zip({{"a", ""}, {"b", ""}, {"c", ""}, {"d", ""}});
    EXPECT_EQ(why(four, {.maxEntries = 4}), "");
    EXPECT_EQ(why(four, {.maxEntries = 3}), "more files in archives than MaxArchiveEntries");
    const std::string zeros = Zip({{"a", std::string(8 << 20, '\0')}});
    EXPECT_EQ(why(zeros, {.maxBytes = 8 << 20}), "");
    EXPECT_EQ(why(zeros, {.maxBytes = (8 << 20) - 1}),
              "more bytes in archives than MaxArchiveBytes");
    const std::string bomb =
        Zip({{"a.bz2", Pack("raw", "bzip2", {{"a", std::string(48 << 20, 'a')}})}});
    EXPECT_EQ(why(bomb, {}), "an archive that unpacks to a thousand times its size");
}

TEST(Archives, WhatCanNotBeRead) {
    AttachmentRules rules{{NameRule("exe", "*.exe")}, {}};
    const std::string random = Random(5000);
    std::string broken = Zip({{"a.txt", random}});
    const std::string cut = broken.substr(0, 2000);
    broken[100] = static_cast<char>(broken[100] ^ 1);
    const struct {
        const char* name;
        Packed file;
        const char* why;
    } cases[] = {
        {"a zip cut short", {"f.zip", cut}, "a file in an archive can't be read: a.txt in f.zip"},
        {"a file changed", {"f.zip", broken}, "a file in an archive can't be read: a.txt in f.zip"},
        {"7z's mark alone", {"f", "7z\xBC\xAF\x27\x1C" + random}, "an archive can't be read: f"},
        {"rar's mark alone", {"f", "Rar!\x1A\7\1"s + '\0' + random}, "an archive can't be read: f"},
        {"called an archive, and nothing known",
         {"f.zip", random},
         "an archive can't be read: f.zip"},
        {"in an archive",
         {"g.zip", Zip({{"f.zip", cut}})},
         "a file in an archive can't be read: a.txt in f.zip in g.zip"},
        {"called an archive, and a text", {"log.gz", "just a log\n"}, ""},
        {"only called a file", {"f.dat", random}, ""},
    };
    for (const auto& each : cases) {
        SCOPED_TRACE(each.name);
        const Result result = Filter(Mail({each.file}), rules);
        EXPECT_EQ(result.tooComplex, each.why);
        EXPECT_EQ(result.encrypted, "");
    }
}

std::string Bytes(std::string_view hex) {
    std::string bytes;
    for (std::size_t i = 0; i + 1 < hex.size(); i += 2)
        bytes += static_cast<char>(HexDigit(hex[i]) << 4 | HexDigit(hex[i + 1]));
    return bytes;
}
// A file of a few bytes packed by 7z with a password: without and with an encrypted list of files.
constexpr char kSevenZipData[] =
    "377abcaf271c000423ae51d410000000000000005a000000000000000e749425f4f5fdc5547eb8d180a4924c"
    "aad130e30104060001091000070b0100022406f1070112530fe0b9608b111dca5172c0fd29971f1d64212101"
    "0001000c0b0700080a018cb2ebe20000050119010011050073000000140a010049e4942e5a7ddd0115060100"
    "2080a4810000";
constexpr char kSevenZipHeaders[] =
    "377abcaf271c0004290e16f770000000000000002e0000000000000027adba698caddbdd0eec4345219fe53f"
    "907c73779adc64865db168d718f1d962df0a0f99b1df52cf83f4c026799e85308564cf5fd2a420f09853ca77"
    "bb0f6042a5e5f8af6dcb3b7fc2f29ed559c7714094f5dfafaec8107cde263d9834a7dca0359ef35bdfc144fb"
    "9b5da0b941c87b2605f2d4a517061001096000070b0100012406f1070112530fe05bcb95960946f658652cca"
    "38eec8c60c5a0a01d8cd6ecb0000";

// libarchive can't even open it.
TEST(Archives, WhatCanNotBeOpened) {
    AttachmentRules rules{{NameRule("exe", "*.exe")}, {}};
    const std::string lzma = Bytes(
        "5d000004000000000000000000000000000000000800000000000000000000000000000000000000"
        "0000000000000000000000000000000000000000000000000000000000612e7a6970000000000000"
        "000100ffffffffffffffffffffffffffffffffffffffffffffffffffffffffffffffffffffffffff"
        "ffffffffff00f8ffffffffffffffffffffffffffffffffffffffffffffffffffffffffffffffffff"
        "ffffffffffffffffffffffffff29ffffffffffffffffffffffffffffffffffffffffffffffffffff"
        "ffffffffffffffffffffff0080ffffffff0000000000000000000000000000000000000000000000"
        "0000000000000000000000000000000000000000fc57f3a4c30000000000000014000001f8ffe300"
        "0000e000");
    const Result result = Filter(Mail({{"f.bin", lzma}}), rules);
    EXPECT_EQ(result.encrypted, "");
}

TEST(Archives, Encrypted) {
    AttachmentRules rules{{NameRule("exe", "*.exe")}, {}};
    const std::string zip = Pack("zip", "none", {{"a.exe", "secret"}}, "word");
    const Result plain = Filter(Mail({{"f.zip", zip}}), rules);
    EXPECT_EQ(plain.encrypted, "Encrypted.Zip");
    EXPECT_EQ(plain.tooComplex, "");
    EXPECT_EQ(plain.findings, "exe: a.exe in f.zip; ");  // its name is not encrypted
    const Result packed = Filter(Mail({{"f.tgz", Pack("ustar", "gzip", {{"f.zip", zip}})}}), rules);
    EXPECT_EQ(packed.encrypted, "Encrypted.Zip");
    for (const char* each : {kSevenZipData, kSevenZipHeaders}) {
        for (const Packed& file :
             {Packed{"f.7z", Bytes(each)}, {"f.zip", Zip({{"f", Bytes(each)}})}}) {
            const Result result = Filter(Mail({file}), rules);
            EXPECT_EQ(result.encrypted, "Encrypted.7z");
            EXPECT_EQ(result.tooComplex, "");
        }
    }
    // Headers that are encrypted: RAR of both versions.
    std::string rar5 = "Rar!\x1A\7\1\0"s + "\x00\x00\x00\x00\x21\x04\x00\x00"s + Random(300);
    EXPECT_EQ(Filter(Mail({{"f.rar", rar5}}), rules).encrypted, "Encrypted.RAR");
    EXPECT_EQ(Filter(Mail({{"f.rar", rar5}}), rules).tooComplex, "");
    std::string office = "\xD0\xCF\x11\xE0\xA1\xB1\x1A\xE1" + std::string(100000, '\0');
    for (const char c : "EncryptedPackage"s) office += {c, '\0'};
    EXPECT_EQ(Filter(Mail({{"a.docx", office}}), rules).encrypted, "Encrypted.Office");
    EXPECT_EQ(Filter(Mail({{"a.zip", Zip({{"a.docx", office}})}}), rules).encrypted,
              "Encrypted.Office");
    // As elsewhere, a PDF that says so may open without a password.
    EXPECT_EQ(Filter(Mail({{"a.pdf", "%PDF-1.4\n1 0 obj <</Encrypt 2 0 R>>"}}), rules).encrypted,
              "");
}

}  // namespace
