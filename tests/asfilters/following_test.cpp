// How the filters follow the store: what a check judges by after a change, with many threads.
#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "asfilters/store.h"

namespace {

class Following : public FilterStore {};

TEST_F(Following, FlagsByTheirFirstByte) {
    const struct {
        const char* value;
        bool on;
    } cases[] = {{"Y", true}, {"yes", true}, {"no", false}, {"0", false},
                 {"", false}, {" Y", false}, {"1", false}};
    CASFiltersCore filters;
    filters.Reload();
    EXPECT_EQ(filters.CheckIP("1.2.3.4"), 3) << "missing";
    for (const auto& each : cases) {
        Set("/AllowDenyIPList/Enabled", each.value);
        EXPECT_EQ(filters.CheckIP("1.2.3.4"), each.on ? 0 : 3) << each.value;
    }
}

TEST_F(Following, EachFilterFollowsItsOwnKeys) {
    CASFiltersCore filters;  // never told to Reload: a change alone makes a filter load
    EXPECT_EQ(Sender(filters, "A"), "3 A|untouched");
    Set({{"/AllowDenyIPList/Enabled", "Y"},
         {"/AllowDenyIPList/Addresses/a/IP", "1.2.3.4"},
         {"/AllowDenyIPList/Addresses/a/Action", "2"}});
    EXPECT_EQ(filters.CheckIP("1.2.3.4"), 2);
    EXPECT_EQ(Sender(filters, "A"), "3 A|untouched");
    Set("/SenderBlackList/Enabled", "Y");
    EXPECT_EQ(Sender(filters, "A"), "0 a|");
    Set("/SenderBlackList/UsersList/1", "a");
    EXPECT_EQ(Sender(filters, "A"), "1 a|");
    Set("/SenderBlackList/Enabled", "N");
    EXPECT_EQ(Sender(filters, "A"), "3 A|untouched") << "off leaves sender and text alone";
    Set("/AllowDenyIPList/Addresses/a/Action", "1");
    EXPECT_EQ(filters.CheckIP("1.2.3.4"), 0);
    Delete("/AllowDenyIPList");
    EXPECT_EQ(filters.CheckIP("1.2.3.4"), 3);
}

// A list long enough that a load takes a while. Whoever begins a check after the change is told of
// must judge by it, also those that begin while another thread is loading.
TEST_F(Following, NobodyJudgesByTheOldSetOnceTheChangeHasCome) {
    Set("/AllowDenyIPList/Enabled", "Y");
    for (int i = 0; i < 300; ++i) {
        const std::string key = "/AllowDenyIPList/Addresses/e" + std::to_string(i);
        Set({{key + "/IP", "9.9.9.9"}, {key + "/Action", "1"}});
    }
    Set({{"/AllowDenyIPList/Addresses/z/IP", "1.2.3.4"},
         {"/AllowDenyIPList/Addresses/z/Action", "1"}});
    CASFiltersCore filters;
    filters.Reload();
    std::atomic<int> announced = 1;  // every odd round denies
    std::atomic<bool> stop = false;
    std::atomic<int> wrong = 0;
    std::atomic<int> checks = 0;
    std::vector<std::thread> sessions;
    for (int i = 0; i < 8; ++i) {
        sessions.emplace_back([&] {
            while (!stop) {
                const int before = announced;
                const int result = filters.CheckIP("1.2.3.4");
                // Only a check with no change under way during it has one right answer.
                if (before % 2 == 0 && announced == before && result != (before % 4 == 2 ? 2 : 0))
                    ++wrong;
                ++checks;
            }
        });
    }
    for (int round = 0; round < 60; ++round) {
        announced = 2 * round + 1;  // under way
        Set("/AllowDenyIPList/Addresses/z/Action", round % 2 == 0 ? "2" : "1");
        announced = 2 * round + 2;  // from here on every check has to see it
        const int seen = checks;
        while (checks < seen + 40) std::this_thread::yield();
    }
    stop = true;
    for (std::thread& session : sessions) session.join();
    EXPECT_EQ(wrong, 0);
}

}  // namespace
