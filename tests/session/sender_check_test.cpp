// A sender as the filters see it: by its strictest reading.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include "asfilters/asfilters.h"
#include "session/address/path.h"
#include "session/address/sender_check.h"

namespace {

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
        // Behind brackets with a blank in them: Postfix takes the address of the group.
        {"<a b@ok.test>group:bad@spam.test; SIZE=1\r\n", 1, "bad@spam.test", "ab@ok.test"},
        {"<<b@ok.test> c@ok.test>group:bad@spam.test;\r\n", 1, "bad@spam.test", "b@ok.test"},
        {"<a<b c> d@ok.test>group:bad@spam.test;\r\n", 1, "bad@spam.test", "a<bc>"},
        // Exim passes over comments.
        {"(a b) bad@spam.test SIZE=1\r\n", 1, "bad@spam.test", "\r\n"},
        {"bad (a b) @spam.test\r\n", 1, "bad@spam.test", "bad"},
        {"(a b) c@ok.test AUTH=bad@spam.test\r\n", 0, "", "\r\n"},
        {"<a b@ok.test><bad@spam.test>\r\n", 1, "bad@spam.test", "ab@ok.test"},
        {"<a b@ok.test> <c@ok.test SIZE=bad@spam.test>\r\n", 0, "", "ab@ok.test"},
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
