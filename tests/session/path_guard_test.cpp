// Which recipients stay inside the mail domains, however they are written.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "session/address/path.h"

namespace {

const std::vector<std::string> kOurs{"example.org", "second.example"};

bool Stays(const std::string& path) { return StaysInside(path + "\r\n", kOurs); }

TEST(PathGuard, PassesWhatEveryServerReadsAlike) {
    const char* const cases[] = {
        "<u@example.org>", " <u@example.org>", "\t<U@EXAMPLE.org>", "u@second.example",
        "<u@example.org> SIZE=1", "<u@example.org>\tNOTIFY=NEVER",
        "<u@example.org> ORCPT=rfc822;x@evil.test", "<u@example.org> ORCPT=rfc822;x:y",
        "u@example.org ORCPT=rfc822;x@y NOTIFY=NEVER", "Some One <u@example.org>",
        "O'Neil <u@example.org>",
        // Routes, quotes, letters.
        "<@example.org:u@example.org>", "<@example.org,@SECOND.example:u@example.org>",
        "<\"u\"@example.org>", "<\"u..v\"@example.org>", "<a.b+c_d-e=f@example.org>",
        "<#$&'*/?^`{|}~@example.org>", "<j\xC3\xBCrgen@example.org>",
        "<\xE7\x94\xA8\xE6\x88\xB7@example.org>",
        // Bare names.
        "<postmaster>", "postmaster", "<evil.test>", "<>", "", "   "};
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
        "<victim@evil.test(x@example.org)>", "<victim@evil.test\t(x@example.org)>",
        "<(x)u@example.org>", "<u(x)@example.org>", "<u@(x)example.org>", "<u@example.org(x)>",
        "u@example.org(x)", "u@example.org (x)", "(x) <u@example.org>",
        "(<u@example.org>) victim@evil.test",
        // Bangs, percent signs, more than one '@'.
        "<evil.test!victim>", "<evil.test!victim@example.org>", "evil.test!victim",
        "<victim%evil.test@example.org>", "<victim%evil.test>", "<a@example.org@evil.test>",
        "<victim@evil.test@example.org>", "<@example.org>", "<@>", "<u@>",
        "<a@example.org@evil.test> ORCPT=rfc822;x:y",
        // A domain that isn't ours whole.
        "<victim@example.org.evil.test> ORCPT=rfc822;x:y", "<u@example.org.>", "<u@.example.org>",
        "<u@example.or>", "<u@xexample.org>", "<u@sub.example.org>", "<u@[127.0.0.1]>",
        "<u@[127.0.0.1](@example.org)>", "<u@[example.org]>", "<a@b>", "a@b", "<u@\"example.org\">",
        "<u@example.org\xC2\xA0>",
        // Routes.
        "<@example.org:U@example.orgevil.net>", "<:U@example.org@evil.net>",
        "<@evil.test:u@example.org>", "<@example.org,@evil.test:u@example.org>",
        "<@example.org,:u@example.org>", "<@example.org,u@example.org>", "<@example.org:>",
        "<@example.org:postmaster>", "<@example.org.:u@example.org>", "<@:u@example.org>",
        "<@example.orgx:u@example.org>", "<u:v@example.org>", "<u@example.org:25>",
        // Quotes, backslashes.
        "<\"victim@evil.test\">", "<\"victim@evil.test\"@example.org>",
        "<\"evil.test!victim\"@example.org>", "<\"victim%evil.test\"@example.org>",
        "<\"u>\"@example.org>", "<\"a b\"@example.org>", "<\"\"@example.org>", "<\"u@example.org>",
        "<u\"@example.org>", "<\"u\".v@example.org>", "<\"u\"v\"@example.org>",
        "<victim\\@evil.test@example.org>", "<\"victim\\@evil.test\"@example.org>",
        "<\\u@example.org>", "<\"u\\\">@example.org>",
        // Blanks and control bytes.
        "<u@example.org >", "< u@example.org>", "<u @example.org>", "<u@ example.org>",
        "<u@exam\tple.org>", "<u@example.org\v>", "<\x01u@example.org>", "<u@example.org\x7F>",
        "<u@example.org\r>", "<u@example.org\0>"s, "\v<u@example.org>", "u@example.org\v",
        "u@example.org evil.test!v", "u@example.org .evil.test", "u @example.org",
        // Brackets, display names, what is glued to the path.
        "<u@example.org", "u@example.org>", "<<u@example.org>>", "<u@example.org>>",
        "<u@example.org>SIZE=1", "<u@example.org><victim@evil.test>",
        "<u@example.org> <victim@evil.test>", "<u@example.org> X=y <victim@evil.test>",
        "<u@example.org> X=victim@evil.test>", "<u@example.org>.evil.test",
        "u@example.org <victim@evil.test>", "u@example.org X=<victim@evil.test>",
        "victim@evil.test <u@example.org>", "evil.test!v <u@example.org>",
        "\"<victim@evil.test>\" <u@example.org>", "a, b <u@example.org>", "x: <u@example.org>",
        "<u@example.org,victim@evil.test>", "u@example.org,victim@evil.test",
        "<u@example.org;victim@evil.test>", "group:u@example.org;",
        // 8-bit text: not UTF-8, overlong, and forms that some take for ASCII.
        "<\xFCr@example.org>", "<\xC0\x80@example.org>", "<\xC1\x80u@example.org>",
        "<\xE0\x81\x80u@example.org>", "<victim\xEF\xBC\xA0zone.test@example.org>",
        "<evil.test\xEF\xBC\x81victim@example.org>", "<victim\xEF\xB9\xABzone.test@example.org>",
        "<u\xE2\x80\x8Bv@example.org>", "<u\xC2\x85@example.org>", "<u\xED\xA0\x80@example.org>",
        "<u\xF4\x90\x80\x80@example.org>", "<u\xC3@example.org>", "<j\xC3\xBCrgen>",
        // Bare names that lead elsewhere at a gateway.
        "</S=victim/O=evil>", "<\"postmaster\">", "<a b>", "< >"};
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

}  // namespace
