#include <gtest/gtest.h>
#include <signal.h>
#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <thread>

#include "platform/sync.h"
#include "support/instance.h"
#include "trelis/trelis.h"

namespace {

using Clock = std::chrono::steady_clock;

class Store : public testing::Test {
  protected:
    Store() { EXPECT_EQ(TrelisInit2(), 0); }
    ~Store() override { TrelisUninit(); }
    static std::string Get(const char* key, int& result) {
        char buffer[64] = "";
        result = TrelisGetValue(kLocalStore, key, buffer, sizeof buffer);
        return buffer;
    }
    // Runs the store's tool as another process.
    static pid_t Tool(std::initializer_list<const char*> words) {
        std::vector<char*> arguments{const_cast<char*>(VTREGISTRY)};
        for (const char* word : words) arguments.push_back(const_cast<char*>(word));
        arguments.push_back(nullptr);
        const pid_t child = fork();
        if (child == 0) {
            execv(VTREGISTRY, arguments.data());
            _exit(127);
        }
        return child;
    }
    static int Finish(pid_t child) {
        int status = 0;
        waitpid(child, &status, 0);
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
};

TEST_F(Store, ValuesParentsAndFailures) {
    int result = 0;
    EXPECT_EQ(TrelisSetValue(kLocalStore, "/v/a/b", "x"), 0);
    EXPECT_EQ(Get("/v/a/b", result), "x");
    EXPECT_EQ(Get("/v/a", result), "");
    EXPECT_EQ(result, 0) << "a parent exists";
    EXPECT_EQ(Get("/v/none", result), "");
    EXPECT_LT(result, 0);
    char kept[8] = "kept";
    EXPECT_LT(TrelisGetValue(kLocalStore, "/v/none", kept, sizeof kept), 0);
    EXPECT_STREQ(kept, "kept");
    TrelisSetValue(kLocalStore, "/v/long", "0123456789");
    EXPECT_EQ(TrelisGetValue(kLocalStore, "/v/long", kept, 5), 0);
    EXPECT_STREQ(kept, "0123");
    EXPECT_LT(TrelisGetValue(0x0A000001, "/v/long", kept, 5), 0) << "another host's store";
    const std::string deep = "/" + std::string(510, 'n');
    EXPECT_EQ(TrelisSetValue(kLocalStore, deep.c_str(), ""), 0);
    for (const std::string& bad :
         {deep + "x", std::string("v"), std::string("/v/"), std::string("/v//x"), std::string("")})
        EXPECT_LT(TrelisSetValue(kLocalStore, bad.c_str(), "x"), 0) << bad;
}

TEST_F(Store, ChildrenInByteOrderAndDeletionOfAll) {
    for (const char* key : {"/e/b/x", "/e/a", "/e/B", "/e/a.c", "/e/\xC3\xA4"})
        TrelisSetValue(kLocalStore, key, "");
    std::string names;
    char name[512];
    TrelisEnum walk = TrelisEnumOpen(kLocalStore, "/e");
    while (TrelisEnumRead(kLocalStore, walk, name, sizeof name) == 0)
        names += std::string(name) + " ";
    TrelisEnumClose(kLocalStore, walk);
    EXPECT_EQ(names, "B a a.c b \xC3\xA4 ");
    EXPECT_EQ(TrelisEnumOpen(kLocalStore, "/missing"), nullptr);
    TrelisEnumClose(kLocalStore, nullptr);
    TrelisSetValue(kLocalStore, "/e.x", "sibling");
    TrelisDelKey(kLocalStore, "/e");
    int result = 0;
    Get("/e/b/x", result);
    EXPECT_LT(result, 0);
    EXPECT_EQ(Get("/e.x", result), "sibling");
    TrelisSetValue(kLocalStore, "/e/only/one", "1");
    TrelisDelKey(kLocalStore, "/e/only/one");
    Get("/e/only", result);
    EXPECT_EQ(result, 0) << "a parent stays";
}

TEST_F(Store, AWatchTellsEachChangeOnce) {
    const TrelisNotify watch = TrelisPlaceNotify(kLocalStore, "/w/k", 1);
    ASSERT_NE(watch, nullptr);
    const UniqueHandle event(OpenEventA(EVENT_ALL_ACCESS, FALSE, watch));
    ASSERT_TRUE(event);
    EXPECT_EQ(TrelisWaitNotify(kLocalStore, watch, 0), 0);
    TrelisSetValue(kLocalStore, "/w/kk", "beside");
    EXPECT_EQ(TrelisWaitNotify(kLocalStore, watch, 0), 0);
    TrelisSetValue(kLocalStore, "/w/k/deep/down", "1");
    EXPECT_EQ(WaitForSingleObject(event.Get(), 0), WAIT_OBJECT_0);
    EXPECT_EQ(TrelisWaitNotify(kLocalStore, watch, 0), 1);
    EXPECT_EQ(TrelisWaitNotify(kLocalStore, watch, 0), 0);
    TrelisDelKey(kLocalStore, "/w");
    EXPECT_EQ(TrelisWaitNotify(kLocalStore, watch, 0), 1) << "deleted from above";
    TrelisCancelNotify(kLocalStore, "/w/k", 1, watch);
}

TEST_F(Store, AnotherProcessIsSeenSoon) {
    const TrelisNotify watch = TrelisPlaceNotify(kLocalStore, "/x", 1);
    const UniqueHandle event(OpenEventA(EVENT_ALL_ACCESS, FALSE, watch));
    for (int i = 0; i < 5; ++i) {
        ASSERT_EQ(Finish(Tool({"set", "/x/y", "1"})), 0);
        EXPECT_EQ(WaitForSingleObject(event.Get(), 10000), WAIT_OBJECT_0) << i;
        ResetEvent(event.Get());
        EXPECT_EQ(TrelisWaitNotify(kLocalStore, watch, 0), 1);
    }
    TrelisCancelNotify(kLocalStore, "/x", 1, watch);
}

TEST_F(Store, SurvivesWritersThatAreKilled) {
    for (int i = 0; i < 20; ++i) {
        const pid_t child = Tool({"set", "/kill/me", "again"});
        std::this_thread::sleep_for(std::chrono::microseconds(300 * i));
        kill(child, SIGKILL);
        waitpid(child, nullptr, 0);
    }
    EXPECT_EQ(TrelisSetValue(kLocalStore, "/kill/after", "fine"), 0);
    sqlite3* raw = nullptr;
    ASSERT_EQ(sqlite3_open((g_instance.Path() + "/store.db").c_str(), &raw), SQLITE_OK);
    std::string verdict;
    sqlite3_exec(
        raw, "PRAGMA integrity_check",
        [](void* out, int, char** values, char**) {
            *static_cast<std::string*>(out) += values[0];
            return 0;
        },
        &verdict, nullptr);
    sqlite3_close(raw);
    EXPECT_EQ(verdict, "ok");
}

TEST_F(Store, ToolsExitCodes) {
    EXPECT_EQ(Finish(Tool({"get", "/nowhere"})), 1);
    EXPECT_EQ(Finish(Tool({"list", "/nowhere"})), 1);
    EXPECT_EQ(Finish(Tool({"set", "/only"})), 2);
    EXPECT_EQ(Finish(Tool({})), 2);
    EXPECT_EQ(Finish(Tool({"set", "relative", "x"})), 1);
    EXPECT_EQ(Finish(Tool({"del", "/nowhere"})), 0);
}

TEST(ClosedStore, FailsHarmlessly) {
    char buffer[8] = "kept";
    EXPECT_LT(TrelisGetValue(kLocalStore, "/a", buffer, sizeof buffer), 0);
    EXPECT_LT(TrelisSetValue(kLocalStore, "/a", "b"), 0);
    EXPECT_EQ(TrelisEnumOpen(kLocalStore, "/a"), nullptr);
    EXPECT_EQ(TrelisPlaceNotify(kLocalStore, "/a", 1), nullptr);
    EXPECT_LT(TrelisWaitNotify(kLocalStore, nullptr, 0), 0);
    TrelisUninit();
    TrelisCancelNotify(kLocalStore, "/a", 1, nullptr);
}

}  // namespace
