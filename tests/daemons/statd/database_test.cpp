#include <sys/stat.h>

#include <chrono>
#include <fstream>
#include <vector>

#include "daemons/statd/report/query.h"
#include "daemons/statd/report/table.h"
#include "daemons/statd/store/keep.h"
#include "daemons/statd/store/recorder.h"
#include "daemons/statd/store/writer.h"
#include "statdb_fixture.h"
#include "text/day.h"

namespace stats {
namespace {

class Written : public StatFixture {
  protected:
    void Write(const std::vector<Record>& records, std::size_t namesADay = kNamesADay) {
        Writer writer(*database_, namesADay);
        ASSERT_TRUE(writer.Good());
        ASSERT_TRUE(writer.Write(records)) << database_->Error();
    }
    Report Read(std::int64_t first, std::int64_t last, std::int64_t names = 100) {
        const auto reader = ReportReader::Open(path_);
        Report report;
        EXPECT_TRUE(reader != nullptr && reader->Read(first, last, names, report));
        return report;
    }
    static std::string Names(const NameList& list) {
        std::string text;
        for (const NamedCounts& row : list.rows)
            text += row.name + "=" + std::to_string(row.counts.Total()) + " ";
        return text;
    }
};

TEST_F(Written, FileIsItsOwnersAlone) {
    struct stat info {};
    ASSERT_EQ(stat(path_.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777U, 0600U);
    ASSERT_EQ(stat((path_ + "-wal").c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777U, 0600U);
}

TEST_F(Written, DaysAreCutAtMidnightAndCountsAddUp) {
    const std::int64_t midnight = (kDay + 1) * kDaySeconds;
    Write({MakeRecord(midnight - 1, kStatClean), MakeRecord(midnight, kStatInfectedRefused)});
    Write({MakeRecord(midnight, kStatInfectedDropped), MakeRecord(midnight, kStatPeerDenied),
           MakeRecord(midnight, 7)});
    const Report report = Read(kDay, kDay + 1);
    ASSERT_EQ(report.days.size(), 2U);
    EXPECT_EQ(report.days[0].name, "2024-10-04");
    EXPECT_EQ(report.days[0].counts.Total(), 1);
    EXPECT_EQ(report.days[1].counts.Infected(), 2);
    EXPECT_EQ(report.totals.Messages(), 3);
    EXPECT_EQ(report.totals.Total(), 5);
    EXPECT_EQ(report.totals.Bytes(), 300) << "the value of a filter's record is no size";
    EXPECT_EQ(report.codes.back().code, 7) << "an unknown code is shown as it came";
    EXPECT_EQ(Read(kDay, kDay).totals.Total(), 1) << "the last day counts whole, no more";
    EXPECT_EQ(Read(kDay + 2, kDay + 3).totals.Total(), 0);
}

// Of each verdict one message of 100 bytes, and one event that nobody knows.
TEST_F(Written, EveryVerdictIsAMessageAndHasAGroupAndAName) {
    Writer writer(*database_);
    std::vector<Record> records{MakeRecord(kNoon, 4711)};
    for (const StatEvent& event : kStatEvents) records.push_back(MakeRecord(kNoon, event.code));
    ASSERT_TRUE(writer.Write(records));
    // What a version that knew no such verdict has counted.
    ASSERT_TRUE(database_->Execute("INSERT INTO hours VALUES(480001, 109, 2, 0)"));
    const Report report = Read(kDay, kDay);
    const Counts& totals = report.totals;
    EXPECT_EQ(totals.Messages(), 20);
    EXPECT_EQ(totals.Infected(), 4);
    EXPECT_EQ(totals.Bytes(), 1800);
    EXPECT_EQ(totals.Total(), 24);
    EXPECT_EQ(totals.events[kStatOtherGroup], 1);
    const std::pair<std::int32_t, std::int64_t> groups[] = {
        {109, 4}, {132, 4}, {108, 2}, {120, 2}, {121, 2}, {122, 2}, {110, 1},
        {130, 1}, {131, 1}, {133, 1}, {0, 1},   {104, 1}, {80, 1}};
    for (const auto& [code, count] : groups)
        EXPECT_EQ(totals.events[StatGroup(code)], count) << code;
    ASSERT_EQ(report.codes.size(), std::size(kStatEvents) + 1);
    for (const CodeCount& each : report.codes) {
        EXPECT_EQ(each.events, each.code == kStatQuarantined ? 3 : 1) << each.code;
        EXPECT_EQ(each.bytes, each.code >= 100 && each.code < 4711 ? 100 : 0) << each.code;
        EXPECT_EQ(CodeName(each.code).starts_with("Event "), each.code == 4711) << each.code;
    }
}

TEST_F(Written, NamesAreOrderedAndTheRestIsAddedUp) {
    Record infected = MakeRecord(kNoon, kStatInfectedRedirected);
    infected.label = "Eicar";
    Record clean = MakeRecord(kNoon, kStatClean);
    clean.label = "a word";
    Write({infected, clean, MakeRecord(kNoon, 100, "u@small", "a@x;b@x;c@y"),
           MakeRecord(kNoon, 100, "u@big", "a@x"), MakeRecord(kNoon + kDaySeconds, 104, "v@BIG"),
           MakeRecord(kNoon, 100, "u@mid"), MakeRecord(kNoon, 80, "u@mid")});
    const Report report = Read(kDay, kDay + 1, 2);
    EXPECT_EQ(Names(report.lists[0]), "127.0.0.1=7 ");
    EXPECT_EQ(Names(report.lists[1]), "big=2 mid=2 (other)=1 ");
    EXPECT_EQ(Names(report.lists[2]), "x=2 y=1 ") << "a record counts once for each domain";
    EXPECT_EQ(Names(report.lists[3]), "Eicar=1 ") << "signatures are of infected messages";
}

TEST_F(Written, NamesOfADayHaveAnEnd) {
    std::vector<Record> records;
    records.reserve(2501);
    for (int i = 0; i < 20; ++i)
        records.push_back(MakeRecord(kNoon, 100, "u@d" + std::to_string(i % 10)));
    Write(records, 4);
    Write(records, 4);  // a new writer learns the day's names from the file
    EXPECT_EQ(Count("count(DISTINCT name) AS n FROM names WHERE kind = 2"), 5);
    EXPECT_EQ(Count("count AS n FROM names WHERE name = '(other)'"), 24);
}

TEST_F(Written, PastDaysAreTrimmedWithoutLosingCounts) {
    std::vector<Record> records;
    records.reserve(2501);
    for (int day = 0; day < 2; ++day) {
        for (int i = 0; i < 30; ++i)
            records.push_back(MakeRecord(kNoon + day * kDaySeconds, i % 2 == 0 ? 100 : 101,
                                         "u@d" + std::to_string(i * i % 13)));
    }
    Write(records);
    const std::string before = Names(Read(kDay, kDay + 1, 2).lists[1]);
    int steps = 0;
    while (TrimNamesStep(*database_, kDay + 1, 3)) ++steps;
    EXPECT_EQ(steps, 2) << "one for each list that has names";
    EXPECT_EQ(Count("count(DISTINCT name) AS n FROM names WHERE kind = 2 AND day = 20000"), 4);
    EXPECT_GT(Count("count(DISTINCT name) AS n FROM names WHERE kind = 2 AND day = 20001"), 4)
        << "today stays";
    EXPECT_EQ(Count("count AS n FROM names WHERE kind = 2"), 60);
    EXPECT_EQ(Names(Read(kDay, kDay + 1, 2).lists[1]), before);
}

TEST_F(Written, OldRecordsGoInSteps) {
    std::vector<Record> records;
    records.reserve(2501);
    for (int i = 0; i < 2500; ++i) records.push_back(MakeRecord(kNoon, 100, "u@d"));
    records.push_back(MakeRecord(kNoon + kDaySeconds, 100, "u@d"));
    Write(records);
    EXPECT_FALSE(DeleteOldStep(*database_, kDay)) << "the first day that is kept";
    int steps = 0;
    while (DeleteOldStep(*database_, kDay + 1)) ++steps;
    EXPECT_EQ(steps, 3);
    EXPECT_EQ(Count("count(*) AS n FROM records"), 1);
    EXPECT_EQ(Count("count AS n FROM hours"), 1);
    EXPECT_EQ(Count("count AS n FROM names WHERE kind = 2"), 1);
}

TEST_F(Written, AFileThatIsNoDatabaseIsMovedAside) {
    database_.reset();
    std::ofstream(path_, std::ios::binary | std::ios::trunc) << std::string(8192, 'x');
    std::filesystem::remove(path_ + "-wal");
    std::string note;
    database_ = Database::Open(path_, note);
    ASSERT_NE(database_, nullptr) << note;
    EXPECT_NE(note.find("moved"), std::string::npos);
    EXPECT_EQ(std::filesystem::file_size(path_ + ".damaged"), 8192U);
    Write({MakeRecord(kNoon, 100)});
}

TEST_F(Written, ANewerFileIsLeftAlone) {
    ASSERT_TRUE(database_->Execute("PRAGMA user_version = 9"));
    database_.reset();
    std::string note;
    EXPECT_EQ(Database::Open(path_, note), nullptr);
    EXPECT_NE(note.find("newer"), std::string::npos);
    EXPECT_TRUE(std::filesystem::exists(path_));
}

// The writer is held up by a lock on the file: records wait, the sender is not held for good, and
// what has room arrives afterwards.
TEST_F(Written, AFullQueueHoldsTheSenderForAWhileOnly) {
    std::string note;
    Recorder recorder;
    ASSERT_TRUE(recorder.Start(path_, note)) << note;
    ASSERT_TRUE(database_->Execute("BEGIN IMMEDIATE"));
    std::size_t kept = 0;
    const auto from = std::chrono::steady_clock::now();
    while (kept <= kQueueRecords && recorder.Push(MakeRecord(0, 100))) ++kept;
    EXPECT_LT(std::chrono::steady_clock::now() - from, std::chrono::seconds(20));
    EXPECT_EQ(kept, kQueueRecords);
    EXPECT_EQ(recorder.Live().lost, 1);
    EXPECT_EQ(recorder.Live().waiting, static_cast<std::int64_t>(kQueueRecords));
    ASSERT_TRUE(database_->Execute("ROLLBACK"));
    recorder.Stop();
    EXPECT_EQ(Count("count(*) AS n FROM records"), static_cast<std::int64_t>(kQueueRecords));
}

}  // namespace
}  // namespace stats
