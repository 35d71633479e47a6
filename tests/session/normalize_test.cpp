#include "session/address/normalize.h"

#include <gtest/gtest.h>

#include <cstring>

namespace {

TEST(Normalize, Command) {
    const struct {
        const char* in;
        const char* out;
    } cases[] = {{" \tMAIL  \t FROM:  <a  b>\r\n", "MAIL FROM:  <a  b>\r\n"},
                 {"NOOP\r\n", "NOOP\r\n"},
                 {"", ""},
                 {"\tx", "x"},
                 {"RCPT\tTO :<a>\n", "RCPT TO :<a>\n"}};
    for (const auto& each : cases) {
        char text[64];
        std::strcpy(text, each.in);
        NormalizeCommand(text);
        EXPECT_STREQ(text, each.out);
    }
}

TEST(Normalize, StripBlanks) {
    char text[] = "body = binary\tmime \n";
    StripBlanks(text);
    EXPECT_STREQ(text, "body=binarymime\n");
}

TEST(Normalize, Address) {
    const struct {
        const char* in;
        int result;
        const char* out;
    } cases[] = {
        {"<user@example.org>\r\n", 0, "user@example.org"},
        {"user@example.org (a comment)\r\n", 0, "user@example.org"},
        {"<@one.example,@two.example:user@example.org>\r\n", 0, "user@example.org"},
        {"<>\r\n", 0, "<>\r\n"},
        {"<postmaster>\r\n", 0, "postmaster>"},
        {"a@b\r\n", -1, "old"},
        {"\"a b\"@x.y\r\n", 0, "@x.y"},
        {"\r\n", 0, "\r\n"},
        {nullptr, -1, "old"},
    };
    for (const auto& each : cases) {
        char target[64] = "old";
        EXPECT_EQ(NormalizeAddress(each.in, target, 63), each.result)
            << (each.in != nullptr ? each.in : "null");
        EXPECT_STREQ(target, each.out) << (each.in != nullptr ? each.in : "null");
    }
    char narrow[9] = "";
    EXPECT_EQ(NormalizeAddress("<user@example.org>", narrow, 8), 0);
    EXPECT_STREQ(narrow, "user@exa");
}

TEST(Normalize, LocalRecipient) {
    const std::vector<std::string> one{"example.org"};
    const std::vector<std::string> none;
    const std::vector<std::string> empty{""};
    const struct {
        const char* text;
        const std::vector<std::string>& domains;
        int local;
    } cases[] = {
        {"<u@Example.ORG>\r\n", one, 1},
        {"<u@example.org.evil>\r\n", one, 0},
        {"<u@example.or>\r\n", one, 0},
        {"<postmaster>\r\n", none, 1},
        {"<u%evil.example@example.org>\r\n", one, 0},
        {"<@example.org:u@example.org>\r\n", one, 1},
        {"<@example.org,@evil.example:u@example.org>\r\n", one, 0},
        {"<@example.org.evil:u@example.org>\r\n", one, 1},
        {"<@EXAMPLE.org:u@example.org>\r\n", one, 0},
        {"<u@example.org>\r\n", none, 0},
        {"a@b\r\n", one, 1},
        {"<@example.org:u@evil.example>\r\n", one, 0},
        {"<@evil.example:u@evil.example>\r\n", empty, 0},
    };
    for (const auto& each : cases)
        EXPECT_EQ(IsLocalRecipientOf(each.text, each.domains), each.local) << each.text;
}

}  // namespace
