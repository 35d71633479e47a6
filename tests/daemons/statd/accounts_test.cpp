#include "daemons/statd/web/accounts.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <thread>
#include <vector>

#include "support/instance.h"
#include "text/base64.h"
#include "trelis/trelis.h"

namespace stats {
namespace {

using Verdict = Accounts::Verdict;

std::string Basic(const std::string& pair) { return "basic " + Base64Encode(pair); }

class AccountsTest : public testing::Test {
  protected:
    AccountsTest() { EXPECT_EQ(TrelisInit2(), 0); }
    ~AccountsTest() override {
        TrelisDelKey(kLocalStore, "/VTWIN/Daemons/StatsDaemon/Accounts");
        TrelisUninit();
    }
    Verdict Check(const std::string& pair) { return accounts_.Check(Basic(pair), 1); }
    Accounts accounts_{"local:0123456789abcdef"};
};

TEST_F(AccountsTest, PairsThatAreGoodAndBad) {
    ASSERT_TRUE(StoreAccount("ann", "se:cret"));
    char stored[512] = "";
    ASSERT_EQ(TrelisGetValue(kLocalStore, "/VTWIN/Daemons/StatsDaemon/Accounts/ann", stored, 512),
              0);
    EXPECT_EQ(stored[0], '$') << "a hash, nothing else";
    EXPECT_EQ(std::string(stored).find("se:cret"), std::string::npos);
    const struct {
        std::string pair;
        Verdict verdict;
    } cases[] = {
        {"ann:se:cret", Verdict::kGood},
        {"ann:se:cret", Verdict::kGood},  // remembered
        {"ann:se:cre", Verdict::kBad},
        {"ann", Verdict::kBad},
        {"Ann:se:cret", Verdict::kBad},
        {"../Accounts/ann:se:cret", Verdict::kBad},
        {std::string("ann:se:cret\0x", 13), Verdict::kBad},
        {"local:0123456789abcdef", Verdict::kGood},
        {"local:0123456789abcdee", Verdict::kBad},
        {"", Verdict::kBad},
        {"ann:" + std::string(500, 'x'), Verdict::kBad},
    };
    for (const auto& each : cases) EXPECT_EQ(Check(each.pair), each.verdict) << each.pair;
}

TEST_F(AccountsTest, AChangedOrDeletedAccountIsForgottenAtOnce) {
    ASSERT_TRUE(StoreAccount("ann", "one"));
    EXPECT_EQ(Check("ann:one"), Verdict::kGood);
    ASSERT_TRUE(StoreAccount("ann", "two"));
    EXPECT_EQ(Check("ann:one"), Verdict::kBad);
    EXPECT_EQ(Check("ann:two"), Verdict::kGood);
    EXPECT_TRUE(DeleteAccount("ann"));
    EXPECT_EQ(Check("ann:two"), Verdict::kBad);
    EXPECT_FALSE(DeleteAccount("ann"));
}

TEST_F(AccountsTest, AnUnknownNameCostsAHash) {
    ASSERT_TRUE(StoreAccount("ann", "one"));
    const auto time = [&](const std::string& pair) {
        const auto from = std::chrono::steady_clock::now();
        for (int i = 0; i < 5; ++i) EXPECT_EQ(Check(pair), Verdict::kBad);
        return std::chrono::steady_clock::now() - from;
    };
    const auto wrong = time("ann:x");
    EXPECT_GT(time("nobody:x") * 3, wrong);
    EXPECT_GT(time("local:x") * 3, wrong);
}

// One address that guesses on many connections neither uses all the processors nor keeps another
// from being heard.
TEST_F(AccountsTest, GuessesAreFewAtATime) {
    ASSERT_TRUE(StoreAccount("ann", "one"));
    std::atomic<bool> done{false};
    std::atomic<int> busy{0};
    std::vector<std::thread> guessers;
    guessers.reserve(8);
    for (int i = 0; i < 8; ++i)
        guessers.emplace_back([&] {
            while (!done) {
                const Verdict verdict = accounts_.Check(Basic("ann:guess"), 7);
                EXPECT_NE(verdict, Verdict::kGood);
                if (verdict == Verdict::kBusy) ++busy;
            }
        });
    while (busy == 0) std::this_thread::yield();
    EXPECT_EQ(accounts_.Check(Basic("local:0123456789abcdef"), 7), Verdict::kGood);
    EXPECT_EQ(accounts_.Check(Basic("ann:one"), 8), Verdict::kGood);
    done = true;
    for (std::thread& guesser : guessers) guesser.join();
}

TEST(AccountNames, OnlyPlainOnes) {
    for (const char* good : {"a", "ann.b-c_d@example.org", "LOCAL"})
        EXPECT_TRUE(ValidAccountName(good)) << good;
    for (const char* bad : {"", "-d", "local", "a/b", "a:b", "a b", "\xc3\xbc"})
        EXPECT_FALSE(ValidAccountName(bad)) << bad;
    EXPECT_FALSE(ValidAccountName(std::string(65, 'a')));
}

TEST(BasicHeader, Readings) {
    const struct {
        const char* header;
        const char* pair;
    } cases[] = {
        {"basic YTpi", "a:b"}, {"BASIC   YTpi ", "a:b"}, {"basic YTpiYw==", "a:bc"}, {"basic ", ""},
        {"basic YT!pi", ""},   {"bearer YTpi", ""},      {"basic YWI=", ""},         {"", ""}};
    for (const auto& each : cases) EXPECT_EQ(DecodeBasic(each.header), each.pair) << each.header;
    EXPECT_EQ(DecodeBasic("basic " + std::string(5000, 'A')), "");
}

TEST(OwnersToken, IsMadeKeptAndRefusedWhenOthersCouldReadIt) {
    const std::string path = g_instance.Path() + "/report.token";
    const std::string first = OwnerPair(path);
    ASSERT_EQ(first.size(), 6U + 64U);
    EXPECT_TRUE(first.starts_with("local:"));
    struct stat info {};
    ASSERT_EQ(stat(path.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777U, 0600U);
    EXPECT_EQ(OwnerPair(path), first) << "kept over a restart";
    ASSERT_EQ(chmod(path.c_str(), 0644), 0);
    const std::string second = OwnerPair(path);
    EXPECT_NE(second, first);
    std::ofstream(path, std::ios::trunc) << "local:\n";
    EXPECT_EQ(OwnerPair(path).size(), first.size()) << "an empty password is none";
    unlink(path.c_str());
    EXPECT_EQ(symlink("/etc/hostname", path.c_str()), 0);
    EXPECT_EQ(OwnerPair(path).size(), first.size());
    EXPECT_EQ(lstat(path.c_str(), &info), 0);
    EXPECT_TRUE(S_ISREG(info.st_mode)) << "a link is replaced, not followed";
}

}  // namespace
}  // namespace stats
