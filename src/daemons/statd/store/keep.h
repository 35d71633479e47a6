// The database's upkeep, in small steps between batches: old records go, and the lists of names of
// past days are cut to those that count.
#pragma once

#include <cstdint>

#include "daemons/statd/store/database.h"

namespace stats {

// Names of one kind that a past day keeps; the others are added up under kOtherName.
inline constexpr std::int64_t kNamesKept = 1000;
// Rows that one step deletes at most.
inline constexpr std::int64_t kRowsAStep = 1000;

// Deletes some of what was received before the first day that is kept. False if there is nothing
// left to delete, or on failure.
bool DeleteOldStep(Database& database, std::int64_t firstDay);
// Cuts one list of one day before today. False if there is nothing left to cut, or on failure.
bool TrimNamesStep(Database& database, std::int64_t today, std::int64_t kept = kNamesKept);

}  // namespace stats
