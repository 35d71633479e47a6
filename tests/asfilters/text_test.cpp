#include "asfilters/text.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "asfilters/users.h"

namespace {

TEST(FilterText, DenyRepliesKeepWithinTheirBuffer) {
    const struct {
        const char* name;
        bool wanted;
        const char* text;
        unsigned size;
        const char* reply;
    } cases[] = {{"ample", true, "550 no", 512, "550 no\r\n"},
                 {"fits exactly", true, "550 no", 9, "550 no\r\n"},
                 {"cut by one", true, "550 no", 8, "550 n\r\n"},
                 {"smallest", true, "550 no", 6, "550\r\n"},
                 {"below the smallest", true, "550 no", 5, ""},
                 {"not wanted", false, "550 no", 512, ""}};
    for (const auto& each : cases) {
        std::string buffer(each.size + 8, '#');
        asfilters::WriteDenyReply(each.wanted, each.text, buffer.data(), each.size);
        const std::size_t length = std::strlen(each.reply);
        EXPECT_STREQ(buffer.c_str(), each.reply) << each.name;
        EXPECT_EQ(buffer.substr(length, each.size - length), std::string(each.size - length, '\0'))
            << each.name;
        EXPECT_EQ(buffer.substr(each.size), "########") << each.name;
    }
    asfilters::WriteDenyReply(true, "550 no", nullptr, 0);
}

TEST(FilterText, UsersWithOneHashAreToldApart) {
    std::string one("aa");
    std::string other;
    const std::uint32_t wanted = asfilters::HashText(one.data(), one.size());
    // Found by trial: another text of two bytes with the same hash.
    for (int first = 1; first < 256 && other.empty(); ++first) {
        for (int second = 1; second < 256; ++second) {
            const std::string text{static_cast<char>(first), static_cast<char>(second)};
            if (text != one && asfilters::HashText(text.data(), 2) == wanted) other = text;
        }
    }
    ASSERT_FALSE(other.empty());
    asfilters::UserTable users;
    users.Add(one);
    users.Add("twice@x.example");
    users.Add("twice@x.example");
    users.Add("");
    users.Seal();
    EXPECT_TRUE(users.Contains("aa"));
    EXPECT_FALSE(users.Contains(other));
    EXPECT_TRUE(users.Contains("twice@x.example"));
    EXPECT_FALSE(users.Contains("twice@x.exampl"));
    EXPECT_TRUE(users.Contains(""));
    EXPECT_FALSE(asfilters::UserTable().Contains(""));
}

}  // namespace
