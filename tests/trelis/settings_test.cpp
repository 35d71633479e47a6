#include "trelis/keys/settings.h"

#include <gtest/gtest.h>

#include "trelis/keys/followed.h"

namespace {

using trelis::Key;

class Settings : public testing::Test {
  protected:
    Settings() { EXPECT_EQ(TrelisInit2(), 0); }
    ~Settings() override {
        for (const char* key : {"/VTWIN", "/VTUX"}) TrelisDelKey(kLocalStore, key);
        TrelisUninit();
    }
    static void Set(const std::string& key, const std::string& value) {
        EXPECT_EQ(TrelisSetValue(kLocalStore, key.c_str(), value.c_str()), 0);
    }
};

consteval Key Net(const char* name) { return {trelis::kInterfaceKey, name}; }

TEST_F(Settings, NumbersKeepTheirBounds) {
    constexpr Key kThreads = Net("MaxThreads");
    constexpr Key kTimeout = Net("ConnectionTimeout");
    constexpr Key kDays{trelis::kStatsKey, "KeepDays"};
    constexpr Key kStorePort{trelis::kStoreKey, "Port"};
    constexpr Key kPort = Net("Port");
    constexpr Key kDelay{trelis::kHarvestingKey, "ResponseTimeout"};
    const struct {
        const Key& key;
        const char* text;
        int number;
    } cases[] = {
        {kThreads, "", 0},         {kThreads, "7", 7},      {kThreads, "51", 50},
        {kThreads, "-1", 50},      {kTimeout, "", 600},     {kTimeout, "0", 600},
        {kTimeout, "x", 600},      {kTimeout, "12 s", 12},  {kTimeout, "4000", 3600},
        {kDays, "", 400},          {kDays, "-3", 0},        {kDays, "soon", 0},
        {kDays, "200000", 100000}, {kStorePort, "0", 8485}, {kStorePort, "70000", 8485},
        {kPort, "", 25},           {kPort, "0", 0},         {kDelay, "99999999999", 0x7FFFFFFF},
        {kDelay, "0", 45},         {kDelay, "-5", 45},      {kDelay, "soon", 45},
    };
    for (const auto& each : cases) {
        Set(each.key.Path({"a"}), each.text);
        EXPECT_EQ(trelis::ReadInt(each.key, {"a"}), each.number)
            << each.key.Row().name << " = " << each.text;
    }
    EXPECT_EQ(trelis::ReadInt(kTimeout, {"missing"}), 600);
}

TEST_F(Settings, TextsAreCutAndFallBack) {
    constexpr Key kName = Net("GreetingDomainName");
    constexpr Key kServer = Net("ServerToForward");
    EXPECT_EQ(trelis::ReadText(kName, {"a"}), "127.0.0.1");
    Set(kName.Path({"a"}), "");
    Set(kServer.Path({"a"}), "");
    EXPECT_EQ(trelis::ReadText(kName, {"a"}), "") << "an empty one is a value here";
    EXPECT_EQ(trelis::ReadText(kServer, {"a"}), "127.0.0.1:10025");
    Set(kName.Path({"a"}), std::string(70, 'n'));
    EXPECT_EQ(trelis::ReadText(kName, {"a"}), std::string(63, 'n'));
    EXPECT_FALSE(trelis::ReadIfGiven(kServer, {"b"}));
}

TEST_F(Settings, WhatBecomesALineIsOne) {
    constexpr Key kName = Net("GreetingDomainName");
    constexpr Key kRedirect{trelis::kMailDaemonKey, "RedirectAddress"};
    for (const auto& [text, line] : {std::pair{"mx.example.org\r\nRSET", "mx.example.org"},
                                     {"a mail server", "a mail server"},
                                     {"mx\t", "mx"},
                                     {"\n", "127.0.0.1"},
                                     {"", ""}}) {
        Set(kName.Path({"a"}), text);
        EXPECT_EQ(trelis::ReadLine(kName, {"a"}), line) << text;
    }
    Set(kRedirect.Path(), "a@example.org\r\nRSET");
    EXPECT_EQ(trelis::ReadFormed(kRedirect), "");
}

TEST_F(Settings, SizesAndFlags) {
    constexpr Key kSize = Net("MaxMessageSize");
    constexpr Key kFile{trelis::kMailDaemonKey, "MaxFileSize"};
    constexpr Key kFlag{trelis::kMailDaemonKey, "PassWhenDown"};
    EXPECT_FALSE(trelis::ReadSize(kSize, {"a"}));
    Set(kSize.Path({"a"}), "2k");
    EXPECT_EQ(trelis::ReadSize(kSize, {"a"}), 2048);
    Set(kSize.Path({"a"}), "much");
    EXPECT_FALSE(trelis::ReadSize(kSize, {"a"}));
    Set(kFile.Path(), "0");
    EXPECT_EQ(trelis::ReadSize(kFile), 26214400);
    Set(kFile.Path(), "3G");
    EXPECT_EQ(trelis::ReadSize(kFile), 2LL << 30);
    for (const auto& [text, on] :
         {std::pair{"Yes", true}, {"y", true}, {"N", false}, {"", false}}) {
        Set(kFlag.Path(), text);
        EXPECT_EQ(trelis::ReadFlag(kFlag), on) << text;
    }
}

// What each value is read as is what it always was; what is new is that somebody hears of it.
TEST_F(Settings, WhatCantBeUsedIsTold) {
    constexpr Key kLog{trelis::kLoggerKey, "MaxLogSize"};
    constexpr Key kDays{trelis::kStatsKey, "KeepDays"};
    constexpr Key kSize = Net("MaxMessageSize");
    constexpr Key kFlag{trelis::kMailDaemonKey, "PassWhenBusy"};
    const auto number = [](const Key& key) { trelis::ReadNumber(key); };
    const auto size = [](const Key& key) { trelis::ReadSize(key, {"a"}); };
    const auto flag = [](const Key& key) { trelis::ReadFlag(key); };
    const struct {
        const Key& key;
        void (*read)(const Key& key);
        const char* text;
        const char* told;  // empty: nothing
    } cases[] = {
        {kLog, number, "20000000 ", ""},
        {kLog, number, "10M", "\"10M\" can't be used as it is, it is taken for: 10\n"},
        {kLog, number, "10M", ""},  // said already
        {kLog, number, "-1", "\"-1\" can't be used as it is, it is taken for: 10485760\n"},
        {kDays, number, "soon", "\"soon\" can't be used as it is, it is taken for: 0\n"},
        {kSize, size, "1\x1B[2J",
         "\"1?[2J\" can't be used as it is, it is taken for: what the scanner takes\n"},
        {kFlag, flag, "no", ""},
        {kFlag, flag, "true", "\"true\" can't be used as it is, it is taken for: N\n"},
    };
    for (const auto& each : cases) {
        Set(each.key.Path({"a"}), each.text);
        testing::internal::CaptureStderr();
        each.read(each.key);
        const std::string start = *each.told == '\0' ? "" : each.key.Path({"a"}) + ": ";
        EXPECT_EQ(testing::internal::GetCapturedStderr(), start + each.told) << each.text;
    }
}

TEST_F(Settings, NamesStandForTheFirstStarThatIsLeft) {
    constexpr Key kMask = Net("RelayNetworks/*/Mask");
    EXPECT_EQ(kMask.Path({"a", "b*"}),
              "/VTWIN/Agents/VTSMTPProxy/NetworkInterfaces/a/RelayNetworks/b*/Mask");
    EXPECT_EQ(kMask.ListPath(), "/VTWIN/Agents/VTSMTPProxy/NetworkInterfaces");
    EXPECT_EQ(kMask.ListPath({"*"}), "/VTWIN/Agents/VTSMTPProxy/NetworkInterfaces/*/RelayNetworks");
    Set(kMask.Path({"a", "2"}), "x");
    Set(kMask.Path({"a", "10"}), "x");
    Set(kMask.Path({"b", "1"}), "x");
    const auto names = [](trelis::NameWalk walk) {
        std::string all;
        for (std::string name; walk.Next(name);) all += name + ' ';
        return all;
    };
    EXPECT_EQ(names({kMask}), "a b ");
    EXPECT_EQ(names({kMask, {"a"}}), "10 2 ") << "the store's order";
    EXPECT_EQ(names({kMask, {"c"}}), "");
}

TEST_F(Settings, AFollowedSetIsReadWhenSomethingHasChanged) {
    int reads = 0;
    trelis::Followed<std::string> followed(trelis::kStatsKey, [&reads] {
        ++reads;
        return std::make_shared<const std::string>(
            trelis::ReadText(Key(trelis::kStatsKey, "HTTPAddress")));
    });
    EXPECT_EQ(followed.Current(), nullptr) << "before the first load";
    followed.Load();
    const auto first = followed.Current();
    EXPECT_EQ(*first, "127.0.0.1");
    EXPECT_EQ(reads, 1);
    Set("/VTWIN/Daemons/StatsDaemon/HTTPAddress", "127.0.0.2");
    EXPECT_EQ(*followed.Current(), "127.0.0.2");
    EXPECT_EQ(*first, "127.0.0.1") << "who began with a set keeps it";
    EXPECT_EQ(followed.Current(), followed.Current());
    EXPECT_EQ(reads, 2);
    followed.End();
    Set("/VTWIN/Daemons/StatsDaemon/HTTPAddress", "127.0.0.3");
    EXPECT_EQ(*followed.Current(), "127.0.0.2");
}

}  // namespace
