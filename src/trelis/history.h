// Inside trelis/: what people have changed, in the store file itself, so that it stands there if
// and only if the change does. The table holds one row a key; the rows of one act were written
// together.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "trelis/admin.h"
#include "trelis/sqlite.h"

namespace trelis {

// Its table, for opening.h.
extern const char kHistorySchema[];

// The acts of one connection. One thread at a time; within the store's transactions.
class History {
  public:
    // From now on what is noted is kept, as this person's; nothing is before.
    void Keep(const std::string& who, const std::string& how) {
        who_ = who;
        how_ = how;
    }
    // A transaction begins. undoes: the act that it takes back, or 0.
    void Begin(std::int64_t undoes) {
        act_ = 0;
        undoes_ = undoes;
    }
    // A value, in its transaction; nothing if it was the same before. False on failure.
    bool Note(sqlite3* database, const ValueChange& change);
    // The oldest first. Nothing on failure.
    static std::optional<std::vector<Act>> Read(sqlite3* database);

  private:
    bool Number(sqlite3* database);

    std::string who_;
    std::string how_;
    std::int64_t undoes_ = 0;
    std::int64_t act_ = 0;  // of the transaction in hand; 0: it has none yet
};

}  // namespace trelis
