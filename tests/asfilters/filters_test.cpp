#include <chrono>
#include <thread>

#include "asfilters/store.h"

namespace {

using Clock = std::chrono::steady_clock;
constexpr char kDefault[] = "550 5.7.1 Message Rejected\r\n";

class IPList : public FilterStore {
  protected:
    static void Entry(const std::string& name, const char* ip, const char* mask,
                      const char* action) {
        const std::string key = "/AllowDenyIPList/Addresses/" + name;
        if (ip != nullptr) Set(key + "/IP", ip);
        if (mask != nullptr) Set(key + "/Mask", mask);
        if (action != nullptr) Set(key + "/Action", action);
    }
};

TEST_F(IPList, AnyAllowEntryBeatsAnyDenyEntry) {
    for (const bool allowFirst : {true, false}) {
        TrelisDelKey(kLocalStore, kFilterRoot.c_str());
        Set("/AllowDenyIPList/Enabled", "Y");
        Entry(allowFirst ? "b" : "a", "10.0.0.0", "255.0.0.0", "2");
        Entry(allowFirst ? "a" : "b", "10.1.2.3", nullptr, "1");
        CASFiltersCore filters;
        EXPECT_EQ(filters.CheckIP("10.1.2.4"), 3) << "not loaded yet";
        EXPECT_EQ(filters.Reload(), 0);
        EXPECT_EQ(filters.CheckIP("10.1.2.3"), 0);
        EXPECT_EQ(filters.CheckIP("10.1.2.4"), 2);
        EXPECT_EQ(filters.CheckIP("11.1.2.4"), 0);
    }
}

TEST_F(IPList, Entries) {
    const std::string longName(420, 'n');
    const struct {
        const char* name;
        const char *ip, *mask, *action;
        int peer1234, peerAllOnes;
    } cases[] = {{"whole address", "1.2.3.4", nullptr, "2", 2, 0},
                 {"zero mask", "9.9.9.9", "0.0.0.0", "2", 2, 2},
                 {"address with host bits", "1.2.3.99", "255.255.255.0", "2", 2, 0},
                 {"unknown action", "1.2.3.4", nullptr, "3", 0, 0},
                 {"action with text behind", "1.2.3.4", nullptr, " 2x", 2, 0},
                 {"empty action", "1.2.3.4", nullptr, "", 0, 0},
                 {"no address", nullptr, "0.0.0.0", "2", 0, 0},
                 {"address that is none", "nonsense", nullptr, "2", 0, 2},
                 {"mask that is none", "1.2.3.4", "nonsense", "2", 2, 0},
                 {"long name", "1.2.3.4", nullptr, "2", 2, 0}};
    for (const auto& each : cases) {
        TrelisDelKey(kLocalStore, kFilterRoot.c_str());
        Set("/AllowDenyIPList/Enabled", "y");
        Entry(each.name == std::string("long name") ? longName : "m", each.ip, each.mask,
              each.action);
        Entry("z", "5.6.7.8", nullptr, "2");  // entries behind a skipped one stay in force
        CASFiltersCore filters;
        filters.Reload();
        EXPECT_EQ(filters.CheckIP("1.2.3.4"), each.peer1234) << each.name;
        EXPECT_EQ(filters.CheckIP("255.255.255.255"), each.peerAllOnes) << each.name;
        EXPECT_EQ(filters.CheckIP("5.6.7.8"), 2) << each.name;
    }
}

TEST_F(IPList, BothFamilies) {
    constexpr const char* kPeers[] = {"192.0.2.9", "2001:db8::9", "::ffff:192.0.2.9"};
    const struct {
        const char *ip, *mask, *action;
        int results[3];  // for those peers
    } cases[] = {
        {"192.0.2.0/24", nullptr, "2", {2, 0, 2}},
        {"192.0.2.7/24", nullptr, "2", {2, 0, 2}},
        {"2001:db8::/32", nullptr, "2", {0, 2, 0}},
        {"::/0", nullptr, "2", {0, 2, 0}},
        {"0.0.0.0", "0.0.0.0", "2", {2, 2, 2}},  // everybody
        {"0.0.0.0/1", nullptr, "2", {0, 0, 0}},
        {"192.0.2.0/24", "255.255.255.0", "2", {0, 0, 0}},  // says two things
        {"0.0.0.0/x", "0.0.0.0", "2", {0, 0, 0}},
        {"2001:db8::/32", "0.0.0.0", "2", {0, 0, 0}},
    };
    for (const auto& each : cases) {
        TrelisDelKey(kLocalStore, kFilterRoot.c_str());
        Set("/AllowDenyIPList/Enabled", "Y");
        Entry("m", each.ip, each.mask, each.action);
        CASFiltersCore filters;
        filters.Reload();
        for (std::size_t i = 0; i < std::size(kPeers); ++i)
            EXPECT_EQ(filters.CheckIP(kPeers[i]), each.results[i]) << each.ip << " " << kPeers[i];
    }
}

TEST_F(IPList, AllowingAllOfOneFamilyLiftsNoDenialOfTheOther) {
    Set("/AllowDenyIPList/Enabled", "Y");
    Entry("a", "0.0.0.0", "0.0.0.0", "1");
    Entry("b", "2001:db8::/32", nullptr, "2");
    Entry("c", "2001:db8::7", nullptr, "1");
    CASFiltersCore filters;
    filters.Reload();
    EXPECT_EQ(filters.CheckIP("192.0.2.9"), 0);
    EXPECT_EQ(filters.CheckIP("2001:db8::9"), 2);
    EXPECT_EQ(filters.CheckIP("2001:db8::7"), 0);
}

class SenderList : public FilterStore {};

TEST_F(SenderList, VerdictsAndDenyTexts) {
    const struct {
        const char* name;
        const char *send, *drop, *text;
        unsigned size;
        std::string verdict;
    } cases[] = {
        {"refused", "Y", "N", "550 go away", 512, "1 bad@x.example|550 go away\r\n"},
        {"dropped", "yes", "Yes", "550 go away", 512, "2 bad@x.example|550 go away\r\n"},
        {"no text", "N", "N", "550 go away", 512, "1 bad@x.example|"},
        {"flags missing", nullptr, nullptr, nullptr, 512, "1 bad@x.example|"},
        {"text missing", "Y", "N", nullptr, 512, "1 bad@x.example|" + std::string(kDefault)},
        {"small buffer", "Y", "N", "550 go away", 5, "1 bad@x.example|"},
        {"least buffer", "Y", "N", "550 go away", 6, "1 bad@x.example|550\r\n"}};
    for (const auto& each : cases) {
        TrelisDelKey(kLocalStore, kFilterRoot.c_str());
        Set({{"/SenderBlackList/Enabled", "Y"}, {"/SenderBlackList/UsersList/1", "Bad@X.example"}});
        if (each.send) Set("/SenderBlackList/EnabledSendDenyMessage", each.send);
        if (each.drop) Set("/SenderBlackList/EnabledDropConnection", each.drop);
        if (each.text) Set("/SenderBlackList/DenyMessage", each.text);
        CASFiltersCore filters;
        filters.Reload();
        EXPECT_EQ(Sender(filters, "BAD@x.Example", each.size), each.verdict) << each.name;
        EXPECT_EQ(Sender(filters, "GOOD@x.example", each.size), "0 good@x.example|") << each.name;
    }
}

TEST_F(SenderList, BothListsAndTheirOddEntries) {
    const std::string longName(300, 'n');
    Set({{"/SenderBlackList/Enabled", "Y"},
         {"/SenderBlackList/WildcardsList/1", "*@SPAM.example"},
         {"/SenderBlackList/WildcardsList/2/child", "*"},  // only a child of an empty entry
         {"/SenderBlackList/UsersList/" + longName, "long@x.example"},
         {"/SenderBlackList/UsersList/z", "Last@X.example"}});
    CASFiltersCore filters;
    filters.Reload();
    EXPECT_EQ(Sender(filters, "u@spam.EXAMPLE"), "1 u@spam.example|");
    EXPECT_EQ(Sender(filters, "long@x.example"), "1 long@x.example|");
    EXPECT_EQ(Sender(filters, "last@x.example"), "1 last@x.example|") << "behind the long name";
    EXPECT_EQ(Sender(filters, "other@x.example"), "0 other@x.example|");
    EXPECT_EQ(Sender(filters, ""), "1 |") << "an empty entry matches the empty sender";
    Delete("/SenderBlackList/WildcardsList");
    EXPECT_EQ(Sender(filters, ""), "0 |");
    Set("/SenderBlackList/UsersList/empty", "");
    EXPECT_EQ(Sender(filters, ""), "1 |");
    char deny[8] = "keep";
    EXPECT_EQ(filters.CheckSender(nullptr, deny, sizeof deny), -1);
    EXPECT_STREQ(deny, "keep");
}

class Harvesting : public FilterStore {
  protected:
    // Result, deny text and whole seconds of a check.
    static std::string Check(asfilters::CASFilters& filters, const char* recipient,
                             const char* domain, unsigned size = 512) {
        std::string deny(512, '#');
        const auto start = Clock::now();
        const int result = filters.CheckRecipient(recipient, domain, deny.data(), size);
        const auto seconds =
            std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - start).count();
        return std::to_string(result) + " " + (deny[0] == '#' ? "untouched" : deny.c_str()) + " " +
               std::to_string(seconds);
    }
};

TEST_F(Harvesting, Verdicts) {
    Set({{"/DirectoryHarvesting/Enabled", "Y"},
         {"/DirectoryHarvesting/EnabledSendDenyMessage", "Y"},
         {"/DirectoryHarvesting/DenyMessage", "550 slow"},
         {"/DirectoryHarvesting/ResponseTimeout", "1"}});
    CASFiltersCore filters;
    filters.Reload();
    EXPECT_EQ(Check(filters, "a@x.example", "X.Example"), "2 550 slow\r\n 1");
    EXPECT_EQ(Check(filters, "nobody", "x.example"), "2 550 slow\r\n 1");
    EXPECT_EQ(Check(filters, "a@b@x.example", "x.example"), "-1 untouched 0") << "the first @";
    EXPECT_EQ(Check(filters, "a@y.example", "x.example"), "-1 untouched 0");
    EXPECT_EQ(Check(filters, "a@x.example.org", "x.example"), "-1 untouched 0");
    EXPECT_EQ(Check(filters, "a@x.example", "x.example", 5), "2  1");
    Set("/DirectoryHarvesting/EnabledSendDenyMessage", "N");
    EXPECT_EQ(Check(filters, "a@x.example", "x.example"), "2  1");
    Set("/DirectoryHarvesting/Enabled", "N");
    EXPECT_EQ(Check(filters, "a@x.example", "x.example"), "3 untouched 0");
}

TEST_F(FilterStore, OneInstanceWhoseLastUserDeletesIt) {
    EXPECT_EQ(GetASFilters(), nullptr);
    EXPECT_EQ(ShareASFilters(), nullptr);
    EXPECT_EQ(DestroyASFilters(), 0);
    EXPECT_EQ(CreateASFilters(), 0);
    asfilters::CASFilters* const first = GetASFilters();
    EXPECT_EQ(CreateASFilters(), 0);
    EXPECT_EQ(GetASFilters(), first);
    const auto shared = ShareASFilters();
    EXPECT_EQ(DestroyASFilters(), 0);
    EXPECT_EQ(GetASFilters(), nullptr);
    EXPECT_EQ(shared->CheckIP("1.2.3.4"), 3);
    EXPECT_EQ(shared.use_count(), 1);
}

}  // namespace
