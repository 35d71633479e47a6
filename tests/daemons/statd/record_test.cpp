#include "daemons/statd/store/record.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "daemons/statd/store/text.h"
#include "tagmsg/tagmsg.h"
#include "text/day.h"
#include "text/printable.h"

namespace stats {
namespace {

// A flat form that a sender would make.
class Message {
  public:
    Message() { TagMsgCreate(&root_); }
    Message(const Message&) = delete;
    Message& operator=(const Message&) = delete;
    ~Message() { TagMsgFree(root_, 1, 1); }
    Message& Text(std::uint32_t tag, const std::string& text) {
        TagMsgAddAttr(root_, tag, text.c_str());
        return *this;
    }
    Message& Number(std::uint32_t tag, std::int32_t number) {
        TagMsgAddAttr(root_, tag, &number);
        return *this;
    }
    std::string Flat() {
        void* data = nullptr;
        std::uint32_t length = 0;
        TagMsgSerialize(root_, &data, &length);
        std::string flat(static_cast<const char*>(data), length);
        std::free(data);
        return flat;
    }
    std::optional<Record> Parse() {
        const std::string flat = Flat();
        return ParseRecord(flat.data(), static_cast<std::uint32_t>(flat.size()));
    }

  private:
    TagMsgNode* root_ = nullptr;
};

TEST(StatRecord, MissingIsNotEmptyAndHostsHaveNoSign) {
    const auto record =
        Message().Text(TagSender, "").Number(TagSourceHost, -1).Number(TagValue, -1).Parse();
    ASSERT_TRUE(record);
    EXPECT_EQ(record->sender, "");
    EXPECT_FALSE(record->recipients);
    EXPECT_FALSE(record->eventCode);
    EXPECT_EQ(record->sourceHost, 0xFFFFFFFF);
    EXPECT_EQ(record->value, -1);
}

TEST(StatRecord, LongTextsAreCut) {
    const auto record = Message().Text(TagDetails, std::string(kTextLimit + 5, 'x')).Parse();
    ASSERT_TRUE(record);
    EXPECT_EQ(record->details->size(), kTextLimit);
    EXPECT_GT(record->Size(), kTextLimit);
}

TEST(StatText, Domains) {
    const struct {
        const char* address;
        const char* domain;
    } cases[] = {
        {"user@Example.ORG", "example.org"},
        {" <user@example.org> SIZE=5", "example.org"},
        {"a@b@c.example.", "c.example"},
        {"", "<>"},
        {"<", "<>"},
        {"postmaster", "(no domain)"},
        {"user@...", "(no domain)"},
        {"user@b\x01\x7f\xff.example", "b???.example"},
        {"user@m\xc3\xbcller.example", "m\xc3\xbcller.example"},
    };
    for (const auto& each : cases) EXPECT_EQ(DomainOf(each.address), each.domain) << each.address;
    EXPECT_EQ(DomainOf("a@" + std::string(300, 'x')).size(), kNameLimit);
    EXPECT_EQ(DomainsOf("a@x;b@X;;c@y; d@z", 100), (std::vector<std::string>{"x", "y", "z"}));
    EXPECT_EQ(DomainsOf("a@x;b@y;c@z", 2).size(), 2U);
}

TEST(StatText, CleanTextKeepsWholeCharacters) {
    EXPECT_EQ(CleanText("ab\xe2\x82\xac", 4), "ab") << "a cut character goes whole";
    EXPECT_EQ(CleanText("\xe2\x82", 9), "??");
    EXPECT_EQ(CleanText("\xc0\x80\xed\xa0\x80\xf5", 9), "??????") << "not UTF-8 in any reading";
    EXPECT_EQ(CleanText(std::string_view("a\0b\n", 4), 9), "a?b?");
}

}  // namespace
}  // namespace stats
