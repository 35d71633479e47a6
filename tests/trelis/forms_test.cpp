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
};

TEST(Forms, WhatCanBeReadFits) {
    for (const Case& each : kCases)
        EXPECT_EQ(each.form->fits(each.text), each.fits) << each.form->wanted << ": " << each.text;
}

}  // namespace
}  // namespace trelis
