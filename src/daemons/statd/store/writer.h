// Writes records into the database, and the counts that reports read, in one transaction a batch.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <span>
#include <string>
#include <tuple>
#include <unordered_set>
#include <utility>

#include "daemons/statd/store/database.h"
#include "daemons/statd/store/record.h"

namespace stats {

// Different names of one kind that a day takes; further ones count as kOtherName. Names come from
// strangers (sender domains above all), so there must be an end.
inline constexpr std::size_t kNamesADay = 50000;
// Different recipient domains that are counted of one record.
inline constexpr std::size_t kDomainsARecord = 100;

// One thread.
class Writer {
  public:
    // The database outlives it.
    explicit Writer(Database& database, std::size_t namesADay = kNamesADay);
    // False if the statements could not be prepared.
    bool Good() const { return insert_ && addHour_ && addName_; }
    // All of the records or, on failure, none.
    bool Write(std::span<const Record> records);

  private:
    struct Sum {
        std::int64_t count = 0;
        std::int64_t bytes = 0;
        void Add(std::int64_t more) {
            ++count;
            bytes += more;
        }
    };
    // The names of one kind that the day in hand has, by their hashes.
    struct Known {
        std::int64_t day = -1;
        std::unordered_set<std::size_t> hashes;
    };
    using HourKey = std::pair<std::int64_t, std::int64_t>;                     // hour, event
    using NameKey = std::tuple<int, std::int64_t, std::string, std::int64_t>;  // kind, day, name,
                                                                               // event
    bool Insert(const Record& record);
    void Count(const Record& record);
    void CountName(Kind kind, std::int64_t day, std::string name, std::int64_t event,
                   std::int64_t bytes);
    bool Admit(Kind kind, std::int64_t day, const std::string& name);
    bool WriteCounts();

    Database& database_;
    const std::size_t namesADay_;
    Statement insert_;
    Statement addHour_;
    Statement addName_;
    std::map<HourKey, Sum> hours_;
    std::map<NameKey, Sum> names_;
    Known known_[std::size(kKinds)];
};

}  // namespace stats
