// report/: reports, from the query to the tables.
//
// This header: what a report asks for and what it holds, and the reading of it from the database.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "daemons/statd/store/database.h"
#include "libstats/codes.h"

namespace stats {

// Events and bytes by group (libstats/codes.h).
struct Counts {
    std::array<std::int64_t, kStatGroups> events{};
    std::array<std::int64_t, kStatGroups> bytes{};

    void Add(const Counts& other);
    std::int64_t Total() const;
    std::int64_t Messages() const;  // those that have a verdict
    std::int64_t Infected() const;
    std::int64_t Bytes() const;
};

struct NamedCounts {
    std::string name;
    Counts counts;
};

// A list of names, the most frequent first. What it has no room for is its last entry, kOtherName.
struct NameList {
    Kind kind;
    const char* title;    // "Peers"
    const char* heading;  // of the names' column: "Peer"
    std::vector<NamedCounts> rows;
};

struct CodeCount {
    std::int64_t code;
    std::int64_t events;
    std::int64_t bytes;
};

struct Report {
    std::int64_t firstDay = 0;
    std::int64_t lastDay = 0;  // inclusive
    std::int64_t made = 0;     // UTC seconds
    Counts totals;
    std::vector<CodeCount> codes;   // the first kStatAlways, then the others that came
    std::vector<NamedCounts> days;  // those with events
    std::vector<NameList> lists;
};

// Names in a list of a report.
inline constexpr std::int64_t kReportNames = 100;

// Reads on a connection of its own. Any thread, one at a time inside.
class ReportReader {
  public:
    // Null on failure.
    static std::unique_ptr<ReportReader> Open(const std::string& path);

    // The days from first to last, both inclusive. False on failure.
    bool Read(std::int64_t firstDay, std::int64_t lastDay, std::int64_t names, Report& report);
    // The counts of the hours from first to last, both inclusive, an entry an hour. False on
    // failure.
    bool ReadHours(std::int64_t firstHour, std::int64_t lastHour, std::vector<Counts>& hours);
    // All records of which the counts are kept.
    std::int64_t Records();

  private:
    explicit ReportReader(std::unique_ptr<Database> database) : database_(std::move(database)) {}
    bool ReadDays(Report& report);
    bool ReadCodes(Report& report);
    bool ReadNames(const Report& report, std::int64_t names, NameList& list);

    std::mutex mutex_;  // guards database_
    std::unique_ptr<Database> database_;
};

}  // namespace stats
