#include "session/address/path.h"
#include "text/ascii.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "asfilters/asfilters.h"
#include "session/address/normalize.h"
#include "session/address/sender_check.h"

namespace {

const std::vector<std::string> kOurs{"example.org", "second.example"};

bool Stays(const std::string& path) { return StaysInside(path + "\r\n", kOurs); }

TEST(PathGuard, PassesWhatEveryServerReadsAlike) {
    const char* const cases[] = {"<u@example.org>",
                                 " <u@example.org>",
                                 "\t<U@EXAMPLE.org>",
                                 "u@second.example",
                                 "<u@example.org> SIZE=1",
                                 "<u@example.org>\tNOTIFY=NEVER",
                                 "<u@example.org> ORCPT=rfc822;x@evil.test",
                                 "<u@example.org> ORCPT=rfc822;x:y",
                                 "u@example.org ORCPT=rfc822;x@y NOTIFY=NEVER",
                                 "Some One <u@example.org>",
                                 "O'Neil <u@example.org>",
                                 "<@example.org:u@example.org>",
                                 "<@example.org,@SECOND.example:u@example.org>",
                                 "<\"u\"@example.org>",
                                 "<\"u..v\"@example.org>",
                                 "<a.b+c_d-e=f@example.org>",
                                 "<#$&'*/?^`{|}~@example.org>",
                                 "<j\xC3\xBCrgen@example.org>",
                                 "<\xE7\x94\xA8\xE6\x88\xB7@example.org>",
                                 "<postmaster>",
                                 "postmaster",
                                 "<evil.test>",
                                 "<>",
                                 "",
                                 "   "};
    for (const char* path : cases) EXPECT_TRUE(Stays(path)) << path;
    EXPECT_TRUE(StaysInside("<u@example.org>", kOurs)) << "no line end";
    EXPECT_TRUE(StaysInside("<u@example.org>\n", kOurs));
    EXPECT_TRUE(StaysInside("<postmaster>\r\n", {})) << "a local name needs no domain";
    EXPECT_TRUE(StaysInside("<a@b>\r\n", {"b"}));
}

TEST(PathGuard, RefusesTheRest) {
    using namespace std::string_literals;
    const std::string cases[] = {
        // Comments, and what hides behind them.
        "<victim@evil.test(x@example.org)>",
        "<victim@evil.test\t(x@example.org)>",
        "<(x)u@example.org>",
        "<u(x)@example.org>",
        "<u@(x)example.org>",
        "<u@example.org(x)>",
        "u@example.org(x)",
        "u@example.org (x)",
        "(x) <u@example.org>",
        "(<u@example.org>) victim@evil.test",
        // Bangs, percent signs, more than one '@'.
        "<evil.test!victim>",
        "<evil.test!victim@example.org>",
        "evil.test!victim",
        "<victim%evil.test@example.org>",
        "<victim%evil.test>",
        "<a@example.org@evil.test>",
        "<victim@evil.test@example.org>",
        "<@example.org>",
        "<@>",
        "<u@>",
        "<a@example.org@evil.test> ORCPT=rfc822;x:y",
        // A domain that isn't ours whole.
        "<victim@example.org.evil.test> ORCPT=rfc822;x:y",
        "<u@example.org.>",
        "<u@.example.org>",
        "<u@example.or>",
        "<u@xexample.org>",
        "<u@sub.example.org>",
        "<u@[127.0.0.1]>",
        "<u@[127.0.0.1](@example.org)>",
        "<u@[example.org]>",
        "<a@b>",
        "a@b",
        "<u@\"example.org\">",
        "<u@example.org\xC2\xA0>",
        // Routes.
        "<@example.org:U@example.orgevil.net>",
        "<:U@example.org@evil.net>",
        "<@evil.test:u@example.org>",
        "<@example.org,@evil.test:u@example.org>",
        "<@example.org,:u@example.org>",
        "<@example.org,u@example.org>",
        "<@example.org:>",
        "<@example.org:postmaster>",
        "<@example.org.:u@example.org>",
        "<@:u@example.org>",
        "<@example.orgx:u@example.org>",
        "<u:v@example.org>",
        "<u@example.org:25>",
        // Quotes, backslashes.
        "<\"victim@evil.test\">",
        "<\"victim@evil.test\"@example.org>",
        "<\"evil.test!victim\"@example.org>",
        "<\"victim%evil.test\"@example.org>",
        "<\"u>\"@example.org>",
        "<\"a b\"@example.org>",
        "<\"\"@example.org>",
        "<\"u@example.org>",
        "<u\"@example.org>",
        "<\"u\".v@example.org>",
        "<\"u\"v\"@example.org>",
        "<victim\\@evil.test@example.org>",
        "<\"victim\\@evil.test\"@example.org>",
        "<\\u@example.org>",
        "<\"u\\\">@example.org>",
        // Blanks and control bytes.
        "<u@example.org >",
        "< u@example.org>",
        "<u @example.org>",
        "<u@ example.org>",
        "<u@exam\tple.org>",
        "<u@example.org\v>",
        "<\x01u@example.org>",
        "<u@example.org\x7F>",
        "<u@example.org\r>",
        "<u@example.org\0>"s,
        "\v<u@example.org>",
        "u@example.org\v",
        "u@example.org evil.test!v",
        "u@example.org .evil.test",
        "u @example.org",
        // Brackets, display names, what is glued to the path.
        "<u@example.org",
        "u@example.org>",
        "<<u@example.org>>",
        "<u@example.org>>",
        "<u@example.org>SIZE=1",
        "<u@example.org><victim@evil.test>",
        "<u@example.org> <victim@evil.test>",
        "<u@example.org> X=y <victim@evil.test>",
        "<u@example.org> X=victim@evil.test>",
        "<u@example.org>.evil.test",
        "u@example.org <victim@evil.test>",
        "u@example.org X=<victim@evil.test>",
        "victim@evil.test <u@example.org>",
        "evil.test!v <u@example.org>",
        "\"<victim@evil.test>\" <u@example.org>",
        "a, b <u@example.org>",
        "x: <u@example.org>",
        "<u@example.org,victim@evil.test>",
        "u@example.org,victim@evil.test",
        "<u@example.org;victim@evil.test>",
        "group:u@example.org;",
        // 8-bit text: not UTF-8, overlong, and forms that some take for ASCII.
        "<\xFCr@example.org>",
        "<\xC0\x80@example.org>",
        "<\xC1\x80u@example.org>",
        "<\xE0\x81\x80u@example.org>",
        "<victim\xEF\xBC\xA0zone.test@example.org>",
        "<evil.test\xEF\xBC\x81victim@example.org>",
        "<victim\xEF\xB9\xABzone.test@example.org>",
        "<u\xE2\x80\x8Bv@example.org>",
        "<u\xC2\x85@example.org>",
        "<u\xED\xA0\x80@example.org>",
        "<u\xF4\x90\x80\x80@example.org>",
        "<u\xC3@example.org>",
        "<j\xC3\xBCrgen>",
        // Bare names that lead elsewhere at a gateway.
        "</S=victim/O=evil>",
        "<\"postmaster\">",
        "<a b>",
        "< >",
    };
    for (const std::string& path : cases) EXPECT_FALSE(Stays(path)) << path;
    EXPECT_FALSE(StaysInside("<u@example.org>\r\n", {}));
    EXPECT_FALSE(StaysInside("<u@>\r\n", {""})) << "an empty text names no domain";
    EXPECT_FALSE(StaysInside("<@:u@example.org>\r\n", {"", "example.org"}));
}

TEST(PathGuard, RecipientCommandsWithoutATo) {
    const struct {
        const char* command;
        bool stays;
    } cases[] = {
        {"RCPT\r\n", true},
        {"RCPT TO\r\n", true},
        {"RCPT postmaster\r\n", true},
        {"RCPT TO <u@example.org>\r\n", true},
        {"RCPT TO<u@example.org>\r\n", true},
        {"RCPT <u@example.org>\r\n", true},
        {"RCPT <u@example.org> SIZE=1\r\n", true},
        {"RCPT u@example.org\r\n", true},
        {"RCPT TO u@example.org\r\n", true},
        {"RCPT FROM:<u@example.org>\r\n", true},
        {"RCPT <victim@evil.test>\r\n", false},
        {"RCPT TO<victim@evil.test>\r\n", false},
        {"RCPT TO victim@evil.test\r\n", false},
        {"RCPT FOR:<victim@evil.test>\r\n", false},
        {"RCPT evil.test!victim\r\n", false},
        {"RCPT TO <victim@evil.test> :<u@example.org>\r\n", false},
        {"RCPT TO <u@example.org> :<victim@evil.test>\r\n", false},
        {"RCPT <u@example.org> victim@evil.test\r\n", false},
        {"RCPT \"TO:\"<victim@evil.test>\r\n", false},
    };
    for (const auto& each : cases)
        EXPECT_EQ(UnreadStaysInside(each.command, kOurs), each.stays) << each.command;
}

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
    const char* const cases[] = {"<user@example.org>\r\n",
                                 "<User+Tag@Example.ORG> SIZE=10 BODY=8BITMIME\r\n",
                                 "Some One <user@example.org>\r\n",
                                 "user@example.org\r\n",
                                 "u.v@example.org NOTIFY=X\r\n",
                                 "<j\xC3\xBCrgen@example.org> SMTPUTF8\r\n",
                                 "<@one.example:user@example.org>\r\n",
                                 "<bounce=user=x.y@list.example>\r\n",
                                 "<>\r\n",
                                 "<postmaster>\r\n",
                                 "root\r\n"};
    for (const char* text : cases) {
        char expected[512] = "";
        ASSERT_EQ(NormalizeAddress(text, expected, 511), 0);
        const MailPath path = ReadPath(text);
        EXPECT_EQ(path.address, expected) << text;
        EXPECT_EQ(path.readings.size(), expected == std::string("postmaster>") ? 2U : 1U) << text;
    }
}

TEST(Path, NoDisguiseHidesASender) {
    const char* const cases[] = {"<bad@spam.test>",
                                 "<BAD@spam.test(x@ok.test)>",
                                 "<x@ok.test(bad@spam.test)>",
                                 "<bad@spam.test (x@ok.test)>",
                                 "<\"bad\"@spam.test>",
                                 "<\"bad@spam.test\">",
                                 "<\"bad@spam.test\"@ok.test>",
                                 "<bad%spam.test@ok.test>",
                                 "<bad%spam.test>",
                                 "<spam.test!bad>",
                                 "<spam.test!bad@ok.test>",
                                 "<ok.test!spam.test!bad>",
                                 "<bad@spam.test@ok.test>",
                                 "<x@ok.test@y@bad@spam.test>",
                                 "<@ok.test:bad@spam.test>",
                                 "<:bad@spam.test>",
                                 "<bad@spam.test.>",
                                 "<bad@spam.test\t>",
                                 "< bad @ spam.test >",
                                 "bad @ spam.test SIZE=1",
                                 "bad@ spam .test",
                                 "<bad@spam.test",
                                 "bad@spam.test>",
                                 "<<bad@spam.test>>",
                                 "\"<x@ok.test>\" <bad@spam.test>",
                                 "(<x@ok.test>) <bad@spam.test>",
                                 "bad@spam.test <x@ok.test>",
                                 "x@ok.test <bad@spam.test>",
                                 "<b\\ad@spam.test>",
                                 "<\"b\\ad\"@spam.test>",
                                 "<bad\\@spam.test@ok.test>",
                                 "<bad\x01@spam.test>",
                                 "<bad@spam.test>x@ok.test",
                                 "<bad@spam.test> AUTH=<x@ok.test>",
                                 "bad@spam.test (c)",
                                 "<bad@spam.test(x@ok.test>",
                                 "<bad@(c)spam.test>",
                                 "<bad%spam.test%ok.test>",
                                 "<@<x@ok.test> ,@ok.test:bad@spam.test>",
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

// Answers with what is listed for the sender.
class Listed final : public asfilters::CASFilters {
  public:
    explicit Listed(std::vector<std::pair<std::string, int>> list) : list_(std::move(list)) {}
    int Reload() override { return 0; }
    int CheckIP(const char*) override { return 0; }
    int CheckRecipient(const char*, const char*, char*, unsigned) override { return -1; }
    int CheckSender(char* sender, char* denyText, unsigned denySize) override {
        if (off) return 3;
        for (char* at = sender; *at != '\0'; ++at) {
            if (*at >= 'A' && *at <= 'Z') *at = static_cast<char>(*at + 32);
        }
        std::fill(denyText, denyText + denySize, '\0');
        for (const auto& [address, result] : list_) {
            if (address != sender) continue;
            address.copy(denyText, denySize - 1);
            return result;
        }
        return 0;
    }
    bool off = false;

  private:
    std::vector<std::pair<std::string, int>> list_;
};

TEST(SenderCheck, TheStrictestReadingWins) {
    Listed filters({{"bad@spam.test", 1}, {"x@drop.test", 2}});
    const struct {
        const char* text;
        int result;
        const char* denyText;
        const char* address;
    } cases[] = {
        {"<Good@ok.test>\r\n", 0, "", "good@ok.test"},
        {"<BAD@spam.test>\r\n", 1, "bad@spam.test", "bad@spam.test"},
        {"<Bad@spam.test(x@ok.test)>\r\n", 1, "bad@spam.test", "bad@spam.test"},
        {"<A@ok.test(Bad@spam.test)>\r\n", 1, "bad@spam.test", "a@ok.test"},
        {"<bad@spam.test(x@drop.test)>\r\n", 2, "x@drop.test", "bad@spam.test"},
        {"<x@drop.test(bad@spam.test)>\r\n", 2, "x@drop.test", "x@drop.test"},
    };
    for (const auto& each : cases) {
        MailPath path = ReadPath(each.text);
        char denyText[64] = "";
        EXPECT_EQ(CheckSenderReadings(filters, path, denyText, sizeof denyText), each.result);
        EXPECT_STREQ(denyText, each.denyText) << each.text;
        EXPECT_EQ(path.address, each.address);
    }
    filters.off = true;
    MailPath path = ReadPath("<Bad@spam.test(x@ok.test)>\r\n");
    char denyText[64] = "as it was";
    EXPECT_EQ(CheckSenderReadings(filters, path, denyText, sizeof denyText), 3);
    EXPECT_STREQ(denyText, "as it was");
    EXPECT_EQ(path.address, "Bad@spam.test") << "a filter that is off changes nothing";
}

}  // namespace
