// The address in a path, and all that a server may read it as.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "session/address/normalize.h"
#include "session/address/path.h"
#include "text/ascii.h"

namespace {

TEST(Path, AddressAsTheServerSeesIt) {
    const struct {
        const char* text;
        const char* address;
        const char* parameters;
    } cases[] = {
        // What the tolerant cutter finds stays.
        {"<user@example.org>\r\n", "user@example.org", ""},
        {" <user@Example.org> SIZE=10 \r\n", "user@Example.org", "SIZE=10"},
        {"Some One <user@example.org>\r\n", "user@example.org", ""},
        {"user@example.org (a comment)\r\n", "user@example.org", "(a comment)"},
        {"user@example.org\n", "user@example.org", ""},
        {"<@one.example,@two.example:user@example.org>\r\n", "user@example.org", ""},
        {"<>\r\n", "<>\r\n", ""},
        {"<postmaster>\r\n", "postmaster>", ""},
        {"postmaster\r\n", "postmaster", ""},
        {"", "", ""},
        {"\r\n", "\r\n", ""},
        {"<victim%evil.test@example.org>\r\n", "victim%evil.test@example.org", ""},
        // Parameters are no part of it.
        {"<> SIZE=100\r\n", "<>\r\n", "SIZE=100"},
        {"<postmaster>\tORCPT=rfc822;a@b.c\r\n", "postmaster>", "ORCPT=rfc822;a@b.c"},
        {"<> AUTH=<x@ok.test>\r\n", "<>\r\n", "AUTH=<x@ok.test>"},
        {"u@example.org AUTH=<x@ok.test>\r\n", "u@example.org", "AUTH=<x@ok.test>"},
        {"<u@example.org>SIZE=1\r\n", "u@example.org", "SIZE=1"},
        {"<u@example.org>x@ok.test\r\n", "u@example.org", "x@ok.test"},
        // Comments, routes, bangs, percent signs, blanks, quotes.
        {"<bad@spam.test(x@ok.test)>\r\n", "bad@spam.test", ""},
        {"<bad@spam.test\t(x@ok.test)>\r\n", "bad@spam.test", ""},
        {"<(a@b.c (\\)d)) bad @ spam.test>\r\n", "bad@spam.test", ""},
        {"<bad@spam.test(x@ok.test>\r\n", "bad@spam.test", ""},
        {"(<x@ok.test>) <bad@spam.test>\r\n", "bad@spam.test", ""},
        {"\"<x@ok.test>\" <bad@spam.test>\r\n", "bad@spam.test", ""},
        {"<\">\"@spam.test> SIZE=1\r\n", "\">\"@spam.test", "SIZE=1"},
        {"<evil.test!victim>\r\n", "victim@evil.test", ""},
        {"<a!b!c>\r\n", "b!c@a", ""},
        {"<victim%evil.test>\r\n", "victim@evil.test", ""},
        {"<bad@spam.test.>\r\n", "bad@spam.test", ""},
        {"<bad@spam.test\t>\r\n", "bad@spam.test", ""},
        {"<\"john\"@example.org>\r\n", "john@example.org", ""},
        {"<\"a b\"@x.y>\r\n", "\"a b\"@x.y", ""},
        {"<\"a\\\"b\"@x.y>\r\n", "\"a\\\"b\"@x.y", ""},
        {"<\"victim@evil.test\">\r\n", "victim@evil.test", ""},
        {"<\"victim@evil.test\"@ok.test>\r\n", "\"victim@evil.test\"@ok.test", ""},
        {"<b\\ad@spam.test>\r\n", "bad@spam.test", ""},
        {"<<bad@spam.test>>\r\n", "bad@spam.test", ">"},
        {"<bad@spam.test SIZE=1\r\n", "bad@spam.test", "SIZE=1"},
        {"<u@[192.0.2.1]>\r\n", "u@[192.0.2.1]", ""},
        {"<u@[IPv6:2001:db8::1]>\r\n", "u@[IPv6:2001:db8::1]", ""},
        {"a@b\r\n", "a@b", ""},
    };
    for (const auto& each : cases) {
        const MailPath path = ReadPath(each.text);
        EXPECT_EQ(path.address, each.address) << each.text;
        EXPECT_EQ(path.parameters, each.parameters) << each.text;
        ASSERT_FALSE(path.readings.empty()) << each.text;
        EXPECT_EQ(path.readings.front(), path.address) << each.text;
    }
}

TEST(Path, SaneOnesHaveOneReadingAndAreAsTheCutterHasThem) {
    const char* const cases[] = {
        "<user@example.org>\r\n", "<User+Tag@Example.ORG> SIZE=10 BODY=8BITMIME\r\n",
        "Some One <user@example.org>\r\n", "user@example.org\r\n", "u.v@example.org NOTIFY=X\r\n",
        "<j\xC3\xBCrgen@example.org> SMTPUTF8\r\n",
        // Routes, names, bare ones.
        "<@one.example:user@example.org>\r\n", "<bounce=user=x.y@list.example>\r\n", "<>\r\n",
        "<postmaster>\r\n", "root\r\n"};
    for (const char* text : cases) {
        char expected[512] = "";
        ASSERT_EQ(NormalizeAddress(text, expected, 511), 0);
        const MailPath path = ReadPath(text);
        EXPECT_EQ(path.address, expected) << text;
        EXPECT_EQ(path.readings.size(), expected == std::string("postmaster>") ? 2U : 1U) << text;
    }
}

TEST(Path, NoDisguiseHidesASender) {
    const char* const cases[] = {
        "<bad@spam.test>", "<BAD@spam.test(x@ok.test)>", "<x@ok.test(bad@spam.test)>",
        "<bad@spam.test (x@ok.test)>",
        // Quotes, percent signs, bangs, more than one '@', routes.
        "<\"bad\"@spam.test>", "<\"bad@spam.test\">", "<\"bad@spam.test\"@ok.test>",
        "<bad%spam.test@ok.test>", "<bad%spam.test>", "<spam.test!bad>", "<spam.test!bad@ok.test>",
        "<ok.test!spam.test!bad>", "<bad@spam.test@ok.test>", "<x@ok.test@y@bad@spam.test>",
        "<@ok.test:bad@spam.test>", "<:bad@spam.test>", "<bad@spam.test.>", "<bad@spam.test\t>",
        // Blanks, brackets, names in front, backslashes.
        "< bad @ spam.test >", "bad @ spam.test SIZE=1", "bad@ spam .test", "<bad@spam.test",
        "bad@spam.test>", "<<bad@spam.test>>", "\"<x@ok.test>\" <bad@spam.test>",
        "(<x@ok.test>) <bad@spam.test>", "bad@spam.test <x@ok.test>", "x@ok.test <bad@spam.test>",
        "<b\\ad@spam.test>", "<\"b\\ad\"@spam.test>", "<bad\\@spam.test@ok.test>",
        "<bad\x01@spam.test>", "<bad@spam.test>x@ok.test", "<bad@spam.test> AUTH=<x@ok.test>",
        "bad@spam.test (c)", "<bad@spam.test(x@ok.test>", "<bad@(c)spam.test>",
        "<bad%spam.test%ok.test>", "<@<x@ok.test> ,@ok.test:bad@spam.test>",
        "<@<x@ok.test><\">\"@ok.test> <y@ok.test>:bad@spam.test> SIZE=1",

        "@ok<x@ok.test>.test,@\" \":bad@spam.test SIZE=1"};
    for (const char* text : cases) {
        const MailPath path = ReadPath(std::string(text) + "\r\n");
        const auto isBad = [](const std::string& reading) {
            return EqualIgnoringCase(reading, "bad@spam.test");
        };
        EXPECT_TRUE(std::any_of(path.readings.begin(), path.readings.end(), isBad)) << text;
    }
    // Servers take an empty name in the domain for a mailbox like others.
    for (const char* text :
         {"<@spam.test>", "<\"\"@spam.test>", "<\"\"%spam.test>", "<@ok.test:\"\"%spam.test>",
          "<@ok.test,@ok.test:\"\"%spam.test> SIZE=1", "@spam.test,( SIZE=1", "@spam.test,"}) {
        const MailPath path = ReadPath(std::string(text) + "\r\n");
        const auto isBad = [](const std::string& reading) {
            return reading.ends_with("@spam.test");
        };
        EXPECT_TRUE(std::any_of(path.readings.begin(), path.readings.end(), isBad)) << text;
    }
    const MailPath path = ReadPath("<postmaster>\r\n");
    EXPECT_EQ(path.readings.back(), "postmaster");
    for (const std::string& reading : ReadPath("<x@ok.test> AUTH=<bad@spam.test>\r\n").readings)
        EXPECT_EQ(reading, "x@ok.test") << "a parameter is no reading";
}

TEST(Path, TooManyReadingsKeepBothEnds) {
    std::string text = "<first@a.test";
    for (int i = 0; i < 200; ++i) text += "@x" + std::to_string(i);
    text += "@bad@spam.test>\r\n";
    const MailPath path = ReadPath(text);
    EXPECT_EQ(path.readings.size(), kMaxReadings);
    for (const char* each : {"first@a.test", "bad@spam.test"})
        EXPECT_EQ(std::count(path.readings.begin(), path.readings.end(), each), 1) << each;
}

}  // namespace
