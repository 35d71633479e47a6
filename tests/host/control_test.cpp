// What the two sides of the control endpoint say, and the wish that passes between threads.
#include <gtest/gtest.h>

#include <thread>

#include "host/control/server.h"
#include "host/control/view.h"
#include "support/instance.h"

namespace control {
namespace {

State Busy() {
    State state;
    state.version = "1.2.3";
    state.process = 4711;
    state.started = 1700000000;
    state.draining = true;
    state.listeners = 2;
    state.count = 1500;
    state.sessions = {{"abc1", "192.0.2.1", "net", "scanning", 61234, 5},
                      {"abc2", "", "a\"b\\c", "connecting", 10, 0}};
    return state;
}

TEST(Protocol, WhatIsWrittenIsRead) {
    const State read = Parse(Write(Busy()));
    EXPECT_EQ(Write(read), Write(Busy()));
    EXPECT_TRUE(read.draining);
    EXPECT_EQ(read.count, 1500U);
    ASSERT_EQ(read.sessions.size(), 2U);
    EXPECT_EQ(read.sessions[1].interface, "a\"b\\c");
    EXPECT_EQ(read.sessions[0].ageMs, 61234);
}

TEST(Protocol, NoNameMakesALineOfItsOwn) {
    State state = Busy();
    state.sessions = {{"id", "peer", "net\nsessions 7\tx", "dialogue", 1, 1}};
    const State read = Parse(Write(state));
    EXPECT_EQ(read.count, 1500U);
    ASSERT_EQ(read.sessions.size(), 1U);
    EXPECT_EQ(read.sessions[0].phase, "dialogue");
}

TEST(Protocol, OddRepliesAreBorne) {
    for (const char* text : {"", "\n\n", "session", "session \n", "sessions x\npid -1\nunknown 5\n",
                             "session a\tb\n", "draining 2\n", "version"}) {
        const State state = Parse(text);
        EXPECT_EQ(state.count, 0U) << text;
        EXPECT_FALSE(state.draining) << text;
    }
    std::string many;
    for (std::size_t i = 0; i < kMostSessions + 5; ++i) many += "session a\tb\tc\td\t1\t2\n";
    EXPECT_EQ(Parse(many).sessions.size(), kMostSessions);
}

TEST(Views, TellWhatIsThere) {
    View view;
    view.proxy = Asked::kAnswered;
    view.state = Busy();
    view.programs = {{"vtsmtpproxy", true, 4711, 1700000000, "1.2.3"},
                     {"vtmaild", false, 0, 0, ""}};
    view.engines = {{"clamd", false}};
    EXPECT_EQ(Text(view),
              "vtsmtpproxy  runs since 2023-11-14 22:13:20 UTC, pid 4711, version 1.2.3\n"
              "vtmaild      does not run\n"
              "engine       clamd is down\n"
              "1500 sessions, draining: no new ones are taken\n"
              "ID               PEER                     INTERFACE    PHASE      AGE        BYTES\n"
              "abc1             192.0.2.1                net          scanning   0:01:01    5\n"
              "abc2             -                        a\"b\\c        connecting 0.0s       0\n"
              "and 1498 more\n");
    EXPECT_EQ(
        Json(view),
        "{\"answers\": true, \"programs\": [{\"name\": \"vtsmtpproxy\", \"running\": true, "
        "\"pid\": 4711, \"started\": 1700000000, \"version\": \"1.2.3\"}, {\"name\": \"vtmaild\", "
        "\"running\": false}], \"engines\": [{\"name\": \"clamd\", \"up\": false}], \"draining\": "
        "true, \"listeners\": 2, \"session_count\": 1500, \"sessions\": [{\"id\": \"abc1\", "
        "\"peer\": \"192.0.2.1\", \"interface\": \"net\", \"phase\": \"scanning\", \"age_ms\": "
        "61234, \"bytes\": 5}, {\"id\": \"abc2\", \"peer\": \"\", \"interface\": "
        "\"a\\\"b\\\\c\", \"phase\": \"connecting\", \"age_ms\": 10, \"bytes\": 0}]}\n");
}

// A wish comes back when the listeners are as it wants them, not when it has been heard.
TEST(Wishes, AreFulfilledBeforeTheyReturn) {
    Draining draining;
    std::atomic<bool> end{false};
    std::atomic<bool> open{true};
    std::thread loop([&] {
        while (!end) {
            if (WaitForSingleObject(draining.Event(), 5) != WAIT_OBJECT_0) continue;
            const std::optional<bool> wish = draining.Take();
            if (!wish) continue;
            draining.Begin(*wish);
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
            open = !*wish;
            draining.Done(open ? 1 : 0);
        }
    });
    for (const bool wish : {true, true, false, true, false, false}) {
        EXPECT_TRUE(draining.Wish(wish));
        EXPECT_EQ(open, !wish);
        EXPECT_EQ(draining.Now(), wish);
        EXPECT_EQ(draining.Listeners(), wish ? 0U : 1U);
    }
    end = true;
    loop.join();
}

}  // namespace
}  // namespace control
