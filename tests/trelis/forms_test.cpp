#include "trelis/keys/forms.h"

#include <gtest/gtest.h>

namespace trelis {
namespace {

struct Case {
    const TextForm* form;
    const char* text;
    bool fits;
};
constexpr Case kCases[] = {
    {&kServiceAddress, "unix:/run/clamav/clamd.ctl", true},
    {&kServiceAddress, "unix:clamd.ctl", false},
    {&kServiceAddress, "clamd.example.org:3310", true},
    {&kServiceAddress, "[2001:db8::7]:3310", true},
    {&kServiceAddress, "2001:db8::7:3310", false},
    {&kServiceAddress, "127.0.0.1:", false},
    {&kServiceAddress, "127.0.0.1:65536", false},
    {&kSpamAddress, "127.0.0.1:11333", true},
    {&kSpamAddress, "spamd:127.0.0.1:783", true},
    {&kSpamAddress, "spamd:unix:/run/spamd.sock", true},
    {&kSpamAddress, "spamd:", false},
    {&kSpamAddress, "rspamd:127.0.0.1:11333", false},
    {&kScore, "6", true},
    {&kScore, "-1.5", true},
    {&kScore, "6,5", false},
    {&kScore, "6.5 ", false},
    {&kScore, "nan", false},
    {&kPlaceList, "subject;text", true},
    {&kPlaceList, " Sender ; HEADER: List-Id ;", true},
    {&kPlaceList, "header:", false},
    {&kPlaceList, "subject,text", false},
    {&kPlaceList, ";", false},
    {&kTypeList, "image/*;application/pdf", true},
    {&kTypeList, "*", true},
    {&kTypeList, "application/pdf;exe", false},
    {&kHostName, "mx.example.org", true},
    {&kHostName, "192.0.2.7", true},
    {&kHostName, "[192.0.2.7]", true},
    {&kHostName, "[IPv6:2001:db8::7]", true},
    {&kHostName, "[mx]", false},
    {&kHostName, "mx.example.org.", false},
    {&kHostName, "mx.example.org\n", false},
    {&kHostName, "mail server of ACME", false},
    {&kMailDomain, "example.org", true},
    {&kMailDomain, "[192.0.2.7]", true},
    {&kMailDomain, "*.example.org", false},
    {&kMailDomain, "example..org", false},
    {&kMailDomain, "example.org.", false},
    {&kMailServer, "mx.example.org", true},
    {&kMailServer, "mx.example.org.:25", true},
    {&kMailServer, "fe80::1%eth0", true},
    {&kMailServer, "[::1]", true},
    {&kMailServer, "[fe80::1%eth0]:25", true},
    {&kMailServer, "[mx]:25", false},
    {&kMailServer, "mx:", false},
    {&kMailServer, "mx:25 ", false},
    {&kMailServer, "unix:/run/mx", false},
    {&kMailServer, "fe80::1%a b", false},
    {&kListenAddress, "::", true},
    {&kListenAddress, "0.0.0.0", true},
    {&kListenAddress, "255.255.255.255", false},
    {&kNetwork, "192.0.2.0/24", true},
    {&kNetwork, "1.2.3.4/33", false},
    {&kMask, "255.255.255.0", true},
    {&kMask, "ffff::", false},
    {&kV4Address, "::1", false},
    {&kListedSender, "Joe@example.org", true},
    {&kListedSender, "\"joe doe\"@example.org", true},
    {&kListedSender, "jos\xC3\xA9@example.org", true},
    {&kListedSender, "*@example.org", false},
    {&kListedSender, "<joe@example.org>", false},
    {&kListedSender, " joe@example.org", false},
    {&kListedSender, "joe@example.org\r", false},
    {&kListedSender, "@example.org", false},
    {&kListedSender, "example.org", false},
    {&kSenderPattern, "*@*.example", true},
    {&kSenderPattern, "joe@example.org", true},
    {&kSenderPattern, "*", true},
    {&kSenderPattern, "<>*", true},
    {&kSenderPattern, "<*@example.org>", false},
    {&kSenderPattern, "*@example.org ", false},
    {&kSenderPattern, "example.org", false},
    {&kRefusal, "550 5.7.1 Message Rejected", true},
    {&kRefusal, "451 später", true},
    {&kRefusal, "550-a", false},
    {&kRefusal, "250 ok", false},
    {&kRefusal, "5a0 no", false},
    {&kRefusal, "550 a\r\n250 ok", false},
    {&kRefusal, "550 ", false},
    {&kRefusal, "Go away, spammer", false},
    {&kMailboxes, "virus@example.org", true},
    {&kMailboxes, "<a@example.org>;postmaster", true},
    {&kMailboxes, "the team <a@example.org>", false},
    {&kMailboxes, "a@example.org\r\nRSET", false},
};

TEST(Forms, WhatCanBeReadFits) {
    for (const Case& each : kCases)
        EXPECT_EQ(each.form->fits(each.text), each.fits) << each.form->wanted << ": " << each.text;
}

}  // namespace
}  // namespace trelis
