#include "trelis/keys/names.h"

#include <gtest/gtest.h>

#include "trelis/keys/rows.h"

namespace {

// Two keys of one short name would be one for people, whatever names stand in the places of '*'.
TEST(Names, EachKeyIsFoundByBothOfItsNames) {
    for (const std::vector<std::string>& names :
         {std::vector<std::string>{"a", "b"}, {"x.y", "1"}}) {
        for (const trelis::KeySection& section : trelis::kKeySections) {
            for (const trelis::KeyRow& row : section.rows) {
                const trelis::KnownKey key{&section, &row, names};
                const auto byName = trelis::FindByShortName(key.ShortName());
                ASSERT_TRUE(byName) << key.ShortName();
                EXPECT_EQ(byName->Path(), key.Path());
                const auto byPath = trelis::FindByPath(key.Path());
                ASSERT_TRUE(byPath) << key.Path();
                EXPECT_EQ(byPath->ShortName(), key.ShortName());
                EXPECT_TRUE(trelis::StandsAboveKeys(section.root));
            }
        }
    }
}

TEST(Names, WhatStandsAboveKeys) {
    const std::string interfaces = "/VTWIN/Agents/VTSMTPProxy/NetworkInterfaces";
    const struct {
        const char* name;
        std::string path;
    } cases[] = {{"interface", interfaces},
                 {"interface.net", interfaces + "/net"},
                 {"INTERFACE.net.TLS", interfaces + "/net/TLS"},
                 {"interface.net.relaynetworks", interfaces + "/net/RelayNetworks"},
                 {"logd", "/VTWIN/Daemons/LoggerDaemon"},
                 {"logd.level", "/VTUX/LoggerDaemon/LogLevel"},
                 {"filters", "/VTWIN/Filters/AS"},
                 {"filters.senders", "/VTWIN/Filters/AS/SenderBlackList"},
                 {"maild.scantimeout", ""},
                 {"mail", ""},
                 {"", ""}};
    for (const auto& each : cases)
        EXPECT_EQ(trelis::PathAbove(each.name).value_or(""), each.path) << each.name;
}

}  // namespace
