// Addresses between the proxy's requests and the commands that are made of them.
#include "text/mailbox.h"

#include <gtest/gtest.h>

namespace {

TEST(Mailbox, AsACommandHasIt) {
    const struct {
        const char* told;
        const char* path;  // empty: none
    } cases[] = {
        {"<>\r\n", "<>"},
        {"", "<>"},
        {"postmaster>", "<postmaster>"},
        {"Postmaster>\r\n", "<Postmaster>"},
        {"a@b.example", "<a@b.example>"},
        {"a b@b.example", "<\"a b\"@b.example>"},
        {"\"a b\"@b.example", "<\"a b\"@b.example>"},
        {"\"a\\\"b\"@b.example", "<\"a\\\"b\"@b.example>"},
        {"\"a\"> X=\"b@b.example", "<\"\\\"a\\\"> X=\\\"b\"@b.example>"},
        {"\"a\\\"@b.example", "<\"\\\"a\\\\\\\"\"@b.example>"},
        {"a@c@b.example", "<\"a@c\"@b.example>"},
        {"a@[IPv6:2001:db8::1]", "<a@[IPv6:2001:db8::1]>"},
        {"h\xC3\xBC@b\xC3\xBC.example", "<h\xC3\xBC@b\xC3\xBC.example>"},
        {"a@b.example>NOTIFY=NEVER", ""},
        {"a@b.example NOTIFY=NEVER", ""},
        {"a\rDATA\r@b.example", ""},
        {"a\n@b.example", ""},
        {"a b", ""},
    };
    for (const auto& each : cases)
        EXPECT_EQ(MailboxPath(Mailbox(each.told)), each.path) << each.told;
}

TEST(Mailbox, Lists) {
    using List = std::vector<std::string>;
    const struct {
        const char* list;
        List mailboxes;
    } cases[] = {{"", {}},
                 {"a@b", {"a@b"}},
                 {"a@b;postmaster>;;c@d", {"a@b", "postmaster", "c@d"}},
                 {"\"x@y;z\"@b;c@d", {"\"x@y;z\"@b", "c@d"}},
                 {"\"x\\\";y\"@b;c@d", {"\"x\\\";y\"@b", "c@d"}}};
    for (const auto& each : cases)
        EXPECT_EQ(SplitRecipients(each.list), each.mailboxes) << each.list;
}

}  // namespace
