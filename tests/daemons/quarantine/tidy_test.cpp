// What makes room, what time deletes, and what a crash or a bad disk leaves.
#include <sys/file.h>

#include <fstream>

#include "daemons/quarantine/clockwatch.h"
#include "daemons/quarantine/form.h"
#include "quarantine_fixture.h"

namespace quarantine {
namespace {

TEST_F(Kept, WhatMakesRoom) {
    const Limits limits{30, 350};
    const std::string text(100, 'x');
    const std::string oldest = Keep(text, limits);
    const std::string released = Keep(text, limits);
    const std::string third = Keep(text, limits);
    EXPECT_TRUE(Release(released, false, true)) << complaint_;
    const std::string fourth = Keep(text, limits);
    EXPECT_EQ(Ids(), (std::vector<std::string>{fourth, third, oldest})) << "released ones go first";
    const std::string fifth = Keep(text, limits);
    EXPECT_EQ(Ids(), (std::vector<std::string>{fifth, fourth, third})) << "then the oldest";
    EXPECT_EQ(Files().size(), 6U);
    EXPECT_EQ(Keep(std::string(351, 'x'), limits), "");
    EXPECT_EQ(complaint_, "it is larger than Quarantine/MaxSize");
    EXPECT_EQ(Ids(), (std::vector<std::string>{fifth, fourth, third})) << "nothing went for it";
    EXPECT_EQ(Files().size(), 6U) << "nothing is left of it";
    EXPECT_EQ(store_.TidyUp({30, 150}, 0, complaint_), 2);
    EXPECT_EQ(Ids(), std::vector<std::string>{fifth});
    EXPECT_EQ(store_.Expire(1, complaint_), 0);
    EXPECT_EQ(store_.Expire(0, complaint_), 1);
    EXPECT_EQ(Files(), std::vector<std::string>());
}

TEST_F(Kept, AnIndexOfBefore) {
    fs::create_directories(folder_);
    int error = 0;
    const sqlite::Connection before =
        sqlite::Open(folder_ + "/index.db", SQLITE_OPEN_CREATE, error);
    ASSERT_TRUE(sqlite::Execute(
        before.get(),
        "CREATE TABLE messages(id TEXT PRIMARY KEY, at INTEGER NOT NULL, sender TEXT, recipients "
        "TEXT, peer TEXT, helo TEXT, subject TEXT, size INTEGER NOT NULL, verdict TEXT, section "
        "TEXT, rule TEXT, reason TEXT, state TEXT NOT NULL, before TEXT, changed INTEGER);"
        "INSERT INTO messages(id, at, size, state) VALUES('old', 1, 100, 'held')"));
    const std::string id = Keep(std::string(100, 'x'), {30, 150});
    EXPECT_NE(id, "") << complaint_;
    EXPECT_EQ(Ids(), std::vector<std::string>{id}) << "the other one made room";
}

TEST_F(Kept, IsCounted) {
    std::vector<std::string> told;
    store_.TellOfPushedOut([&](const KeptMessage& each) { told.push_back(each.id); });
    const Limits limits{30, 250};
    const std::string first = Keep(std::string(100, 'x'), limits);
    const std::string second = Keep(std::string(50, 'x'), limits);
    Keep(std::string(150, 'x'), limits);
    EXPECT_EQ(told, std::vector<std::string>{first});
    EXPECT_TRUE(Release(second, false, true));
    EXPECT_TRUE(Release(second, true, false)) << "refused, and not counted";
    Quarantine other;
    const auto numbers = other.Count(complaint_);
    ASSERT_TRUE(numbers) << complaint_;
    EXPECT_EQ(numbers->messages, (std::array<long long, 4>{1, 0, 0, 1}));
    EXPECT_EQ(numbers->bytes, 200);
    EXPECT_EQ(numbers->pushedOut, 1);
    EXPECT_EQ(numbers->released, 1);
    EXPECT_EQ(store_.Expire(0, complaint_), 2);
    const auto later = other.Count(complaint_);
    ASSERT_TRUE(later);
    EXPECT_EQ(later->expired, 2);
    EXPECT_EQ(later->All() + later->bytes, 0);
}

TEST(Clock, SetAhead) {
    constexpr std::int64_t kDay = 86400;
    constexpr std::int64_t kNow = 1767225600;
    const struct {
        const char* what;
        std::int64_t wall, running;
        bool believed;
    } looks[] = {{"the first", kNow, 100, true},
                 {"an hour on", kNow + 3600, 3700, true},
                 {"set by an hour", kNow + 3 * 3600, 3 * 3600 - 3600, true},
                 {"set by a year", kNow + 366 * kDay, 4 * 3600, false},
                 {"an hour on", kNow + 366 * kDay + 3600, 5 * 3600, false},
                 {"a day on", kNow + 367 * kDay, 4 * 3600 + kDay, true},
                 {"set back", kNow, 6 * 3600 + kDay, true}};
    quarantine::ClockWatch watch;
    for (const auto& each : looks)
        EXPECT_EQ(watch.IsBelieved(each.wall, each.running), each.believed) << each.what;
}

TEST_F(Kept, ThousandsOfRecipientsTakeRoom) {
    const Limits limits{30, 100'000};
    KeptMessage message;
    for (int i = 0; i < 1000; ++i) message.recipients += "someone@example.org;";
    std::vector<std::string> kept;
    for (int i = 0; i < 4; ++i)
        kept.push_back(
            store_.Keep(FileOf("x").Descriptor(), {}, message, limits, complaint_).value_or(""));
    EXPECT_EQ(Ids(), (std::vector<std::string>{kept[3], kept[2]}));
    for (int i = 0; i < 2000; ++i) message.recipients += "someone@example.org;";
    EXPECT_FALSE(store_.Keep(FileOf("x").Descriptor(), {}, message, limits, complaint_));
    EXPECT_EQ(Ids().size(), 2U) << "nothing went for what has no room at all";
}

// Who fills it pushes out what he has put there himself.
TEST_F(Kept, AFloodPushesItselfOut) {
    const struct {
        const char* name;
        const char* first;
        const char* second;
    } floods[] = {{"one client", "192.0.2.7", "192.0.2.7"},
                  {"a network of one client", "2001:db8::1", "2001:db8::2:1"}};
    for (const auto& flood : floods) {
        fs::remove_all(folder_);
        const Limits limits{30, 1000};
        const std::string mine = Keep(std::string(100, 'm'), limits, {}, "192.0.2.1");
        const std::string other = Keep(std::string(100, 'm'), limits, {}, "2001:db8:0:1::1");
        for (int i = 0; i < 20; ++i)
            EXPECT_NE(
                Keep(std::string(100, 'x'), limits, {}, i % 2 == 0 ? flood.first : flood.second),
                "");
        EXPECT_EQ(Ids().size(), 10U) << flood.name;
        EXPECT_EQ(StateOf(mine), "held") << flood.name;
        EXPECT_EQ(StateOf(other), "held") << flood.name;
    }
}

// A process that is killed at any point of Keep or Delete leaves one of these.
TEST_F(Kept, WhatACrashLeaves) {
    const std::string whole = Keep("Subject: a\r\n\r\nx\r\n");
    const std::string text = "Subject: b\r\n\r\ny\r\n";
    const std::string unknown = "20260101T000000-00000000000000aa";
    KeptMessage message;
    message.id = unknown;
    message.at = 1767225600000;
    message.sender = "s@example.org";
    message.size = static_cast<long long>(text.size());
    const auto put = [&](const std::string& id, const char* ending, const std::string& what) {
        std::ofstream(folder_ + "/" + id + ending) << what;
    };
    put(unknown, ".eml", text);
    put(unknown, ".meta", quarantine::WriteForm(message));
    put("half", ".eml", text);
    put("record", ".meta", quarantine::WriteForm(message));
    message.id = "cut";
    const std::string form = quarantine::WriteForm(message);
    put("cut", ".eml", text);
    put("cut", ".meta", form.substr(0, form.size() - 3));
    put("empty", ".eml", text);
    put("empty", ".meta", "");
    fs::remove(folder_ + "/" + whole + ".meta");  // of a deletion that went no further
    EXPECT_EQ(store_.TidyUp({0, 1 << 20}, 3600, complaint_), 0);
    EXPECT_EQ(Ids(), std::vector<std::string>{whole}) << "it may still be on its way there";
    {
        Quarantine next;
        EXPECT_EQ(next.TidyUp({0, 1 << 20}, 0, complaint_), 0) << complaint_;
    }
    EXPECT_EQ(Ids(), (std::vector<std::string>{whole, unknown}));
    EXPECT_EQ(Files().size(), 3U);
    EXPECT_EQ(Text(unknown), text);
    EXPECT_EQ(StateOf(unknown), "held");
    for (const char* each : {"", "-wal", "-shm"}) fs::remove(folder_ + "/index.db" + each);
    EXPECT_NE(Keep("after the index has gone"), "") << complaint_;
    EXPECT_EQ(store_.TidyUp({0, 1 << 20}, 0, complaint_), 0);
    EXPECT_EQ(Ids().size(), 2U) << "the index is made anew from the pairs";
}

// No crash leaves these, but a bad disk may: nobody knows whether somebody counts on them.
TEST_F(Kept, WhatABadDiskLeaves) {
    Keep("x");
    KeptMessage message;
    message.size = 100;
    const auto put = [&](const std::string& id, const std::string& text) {
        message.id = id;
        std::ofstream(folder_ + "/" + id + ".eml") << text;
        std::ofstream(folder_ + "/" + id + ".meta") << quarantine::WriteForm(message);
    };
    put("shorter", "Subj");
    put("another", std::string(100, 'x'));
    fs::copy_file(folder_ + "/shorter.meta", folder_ + "/another.meta",
                  fs::copy_options::overwrite_existing);
    put("unreadable", std::string(100, 'x'));
    fs::remove(folder_ + "/unreadable.meta");
    fs::create_directory(folder_ + "/unreadable.meta");
    for (int i = 0; i < 5000; ++i) message.recipients += std::string(250, 'r') + "@example.org;";
    put("good", std::string(100, 'x'));
    for (const char* each : {"", "-wal", "-shm"}) fs::remove(folder_ + "/index.db" + each);
    EXPECT_EQ(store_.TidyUp({30, 1 << 20}, 0, complaint_), 1) << "the good one, which is old";
    EXPECT_NE(complaint_.find("record"), std::string::npos) << complaint_;
    for (const char* id : {"shorter", "another", "unreadable"})
        EXPECT_TRUE(fs::exists(folder_ + "/" + id + ".eml")) << id;
}

// Those that tidy up meanwhile take nothing away from under somebody's hands.
TEST_F(Kept, WhatIsOnItsWayStays) {
    Keep("x");
    const std::string path = folder_ + "/20260101T000000-00000000000000aa.eml";
    std::ofstream(path) << "on its way";
    {
        const platform::File busy = platform::File::OpenRead(path.c_str());
        ASSERT_EQ(flock(busy.Descriptor(), LOCK_EX | LOCK_NB), 0);
        EXPECT_EQ(store_.TidyUp({30, 1 << 20}, 0, complaint_), 0);
        EXPECT_TRUE(fs::exists(path));
    }
    EXPECT_EQ(store_.TidyUp({30, 1 << 20}, 0, complaint_), 0);
    EXPECT_FALSE(fs::exists(path));
}

}  // namespace
}  // namespace quarantine
