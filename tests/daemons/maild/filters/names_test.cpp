// Names as senders write them to get by a pattern, and patterns.
#include <gtest/gtest.h>

#include "daemons/maild/attachments/names.h"

namespace {

using namespace std::string_literals;
using maild::NamePatterns;
using maild::ReadingsOfName;

struct Case {
    const char* name;
    std::string file;
    const char* pattern;
    bool matches;
};

TEST(Names, Tricky) {
    const Case cases[] = {
        {"as it is", "a.exe", "*.exe", true},
        {"capitals", "A.EXE", "*.exe", true},
        {"capitals in the pattern", "a.exe", "*.EXE", true},
        {"another one", "a.txt", "*.exe", false},
        {"longer than any file's", std::string(5000, 'a') + ".exe", "*.exe", true},
        {"longer than is looked at", std::string(70000, 'a') + ".exe", "*.exe", true},
        {"in brackets", "<a.exe>", "*.exe", true},
        {"with a query", "a.exe?x=y", "*.exe", true},
        {"a folder to some", "..\\a.exe\\", "*.exe", true},
        {"only in the middle", "a.exe.txt", "*.exe", false},
        {"double extension", "invoice.pdf.exe", "*.exe", true},
        {"blank behind it", "invoice.pdf.exe ", "*.exe", true},
        {"tab behind it", "a.exe\t", "*.exe", true},
        {"dot behind it", "a.exe.", "*.exe", true},
        {"dots and blanks behind it", "a.exe. . .", "*.exe", true},
        {"no-break space behind it", "a.exe\u00A0", "*.exe", true},
        {"ideographic space behind it", "a.exe\u3000", "*.exe", true},
        {"line feed behind it", "a.exe\n", "*.exe", true},
        {"control in it", "a.e\x01xe", "*.exe", true},
        {"delete in it",
         "a.ex\x7F"
         "e",
         "*.exe", true},
        {"shown from the right",
         "a.\u202E"
         "fdp.exe",
         "*.exe", true},
        {"direction in the extension", "a.e\u202Exe", "*.exe", true},
        {"isolate in the extension", "a.e\u2066xe", "*.exe", true},
        {"zero-width space",
         "a.ex\u200B"
         "e",
         "*.exe", true},
        {"zero-width joiner at the end", "a.exe\u200D", "*.exe", true},
        {"byte order mark",
         "\uFEFF"
         "a.exe\uFEFF",
         "*.exe", true},
        {"soft hyphen", "a.e\u00ADxe", "*.exe", true},
        {"variation selector", "a.exe\uFE0F", "*.exe", true},
        {"Hangul filler", "a.exe\u3164", "*.exe", true},
        {"full-width letters", "a.\uFF45\uFF58\uFF45", "*.exe", true},
        {"full-width capitals and dot", "a\uFF0E\uFF25\uFF38\uFF25", "*.exe", true},
        {"small full stop",
         "a\uFE52"
         "exe",
         "*.exe", true},
        {"one dot leader",
         "a\u2024"
         "exe",
         "*.exe", true},
        {"ideographic full stop",
         "a\u3002"
         "exe",
         "*.exe", true},
        {"mathematical letters", "a.\U0001D41E\U0001D431\U0001D41E", "*.exe", true},
        {"zero byte behind it", "a.exe\0.txt"s, "*.exe", true},
        {"zero byte in it", "a.e\0xe"s, "*.exe", true},
        {"no UTF-8", "\xFF\xFE.exe", "*.exe", true},
        {"cut UTF-8 at the end", "a.exe\xC3", "*.exe", true},
        {"in a folder", "x/y/a.exe", "a.exe", true},
        {"in a folder of another system", "C:\\temp\\a.exe", "a.exe", true},
        {"dots in front", "../../a.exe", "a.exe", true},
        {"stream of a file", "a.exe:$DATA", "*.exe", true},
        {"stream with two colons", "a.exe::$DATA", "*.exe", true},
        {"stream with a name", "a.exe:b.txt", "*.exe", true},
        {"title with a colon", "Welcome to example.com: confirm.eml", "*.com", false},
        {"quotes of its own", "\"a.exe\"", "*.exe", true},
        {"a parameter behind it", "a.exe; x=y", "*.exe", true},
        {"folded to two letters", "STRASSE.TXT",
         "stra\u00DF"
         "e.txt",
         true},
        {"umlaut in pieces", "A\u0308.txt", "\u00E4.txt", true},
        {"Greek capitals", "\u03A3\u0399\u0393.doc", "\u03C3\u03B9\u03B3.doc", true},
        {"no extension", "exe", "*.exe", false},
        {"extension alone", ".exe", "*.exe", true},
        {"nothing at all", "", "*", false},
        {"longer extension", "a.exes", "*.exe", false},
    };
    for (const Case& each : cases) {
        SCOPED_TRACE(each.name);
        EXPECT_EQ(NamePatterns(each.pattern).MatchAny(ReadingsOfName(each.file)), each.matches);
    }
}

TEST(Names, Patterns) {
    const Case cases[] = {
        {"whole name", "setup.exe", "setup.exe", true},
        {"not a part", "setup.exe", "setup", false},
        {"one character", "a.ex1", "*.ex?", true},
        {"one character, not none", "a.ex", "*.ex?", false},
        {"one character of many bytes", "\u00E4.txt", "?.txt", true},
        {"set", "a.r07", "*.r[0-9][0-9]", true},
        {"not in the set", "a.rar", "*.r[0-9][0-9]", false},
        {"not of a set", "a.rar", "*.[!r]ar", false},
        {"bracket in a set", "a]b", "a[]]b", true},
        {"no end of the set", "a[b", "a[b", true},
        {"taken as it is", "a*b", "a\\*b", true},
        {"taken as it is, no other", "axb", "a\\*b", false},
        {"second of several", "a.vbs", " *.exe ; *.vbs;", true},
        {"none of several", "a.txt", "*.exe;*.vbs", false},
        {"back to the star", "a.exe.exe", "a*.exe", true},
        {"several stars", "invoice-2024.pdf.js", "inv*.*.js", true},
        {"empty patterns match nothing", "a", ";;", false},
    };
    for (const Case& each : cases) {
        SCOPED_TRACE(each.name);
        EXPECT_EQ(NamePatterns(each.pattern).MatchAny(ReadingsOfName(each.file)), each.matches);
    }
    // A product of the lengths, not a power.
    const std::string many(4000, 'a');
    EXPECT_FALSE(NamePatterns("*a*a*a*a*a*a*a*a*a*a*a*a*a*a*a*b").Match(many));
}

}  // namespace
