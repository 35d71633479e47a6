#include "session/server/server_address.h"

#include <gtest/gtest.h>

namespace {

TEST(ServerAddress, Texts) {
    const struct {
        const char* text;
        const char* host;
        std::uint16_t port;
    } cases[] = {
        {"mail.example", "mail.example", 10025},
        {"mail.example:25\r\n", "mail.example", 25},
        {"mail.example:", "mail.example", 0},
        {"mail.example:25:26", "mail.example", 25},  // at the first colon
        {"[2001:db8::1]:25", "2001:db8::1", 25},
        {"[2001:db8::1]\r\n", "2001:db8::1", 10025},
        {"::1", "::1", 10025},
        {"[fe80::1%eth0]:25", "fe80::1%eth0", 25},
        {"[2001:db8::1", "[2001:db8::1", 10025},
        {"[2001:db8::1]25", "[2001:db8::1]25", 10025},
        {"[mail.example]:25", "[mail.example]:25", 10025},
        {"[]:25", "[]:25", 10025},
        {"", "", 10025},
    };
    for (const auto& each : cases) {
        const ServerAddress read = ServerAddress::Parse(each.text);
        EXPECT_EQ(read.host, each.host) << each.text;
        EXPECT_EQ(read.port, each.port) << each.text;
    }
    EXPECT_EQ(ServerAddress::Parse("[::1]:25").Text(), "[::1]:25");
    EXPECT_EQ(ServerAddress::Parse("mail.example").Text(), "mail.example:10025");
}

}  // namespace
