// Inside quarantine/: the index of what is kept, in SQLite, written through to the disk.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <optional>
#include <string>
#include <vector>

#include "daemons/quarantine/kept.h"
#include "daemons/quarantine/numbers.h"
#include "trelis/sqlite.h"

namespace quarantine {

// What of the index somebody wants to see; nothing, or empty: anything.
struct Filter {
    std::string id{};
    std::string from{};     // a part of it, without regard to case
    std::string to{};       // the same of the recipients
    std::string subject{};  // the same
    std::string any{};      // the same of one of these three, or the id
    std::string section{};
    std::optional<std::int64_t> since{};  // milliseconds since 1970; included
    std::optional<std::int64_t> until{};  // not included
    int limit = 0;                        // the newest so many; 0: all
};

// One thread at a time; any number of processes. A false, or nothing, is a failure of the database
// where nothing else is said; Complaint has the reason.
class Index {
  public:
    // Opens the file; makes it where `make` says so. False: there is none, or it can't be used.
    bool Open(const std::string& path, bool make);
    bool IsOpen() const { return connection_ != nullptr; }
    const std::string& Complaint() const { return complaint_; }

    // Writes are one transaction with what is read in it: between Begin and Commit nobody else
    // writes. A transaction that isn't committed is undone by Rollback.
    bool Begin();
    bool Commit();
    void Rollback();

    // Takes the place of an entry of the same id.
    bool Put(const KeptMessage& message);
    bool Remove(const std::string& id);
    std::optional<KeptMessage> Find(const std::string& id);
    // The newest first.
    std::optional<std::vector<KeptMessage>> List(const Filter& filter);
    // The ids of all.
    std::optional<std::vector<std::string>> Ids();
    // The oldest of those in a state, of one source if that isn't empty. Nothing also if there is
    // none: Complaint is empty then.
    std::optional<KeptMessage> Oldest(const char* state, const std::string& source);
    // What each source has in the state `held`.
    struct Share {
        std::string source;
        long long room = 0;
        long long messages = 0;
    };
    std::optional<std::vector<Share>> Shares();
    // The oldest of those that came before the moment, up to so many.
    std::optional<std::vector<std::string>> Before(std::int64_t at, int limit);
    // What is there, and what has been counted.
    std::optional<Numbers> Count();
    // Adds to what has happened since the index was made.
    bool Add(const char* counter, int count);
    // Changes the state if it is one of `from`. False also if it is another one, or there is no
    // such message: Complaint is empty then.
    bool Change(const std::string& id, std::initializer_list<const char*> from, const char* to,
                std::int64_t now);
    // Back to what a release found.
    bool ChangeBack(const std::string& id, std::int64_t now);

  private:
    bool Fail();
    std::optional<std::vector<KeptMessage>> Read(sqlite::Statement& statement);
    std::optional<std::vector<std::string>> Texts(sqlite::Statement& statement);

    sqlite::Connection connection_;
    std::string complaint_;
};

}  // namespace quarantine
