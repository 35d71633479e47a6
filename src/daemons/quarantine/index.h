// Inside quarantine/: the index of what is kept, in SQLite, written through to the disk.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <optional>
#include <string>
#include <vector>

#include "daemons/quarantine/kept.h"
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
    // Bytes of all messages.
    std::optional<long long> Size();
    // What makes room first comes first: released, then what its recipients have but for a part,
    // then held; the oldest first. What is being released comes last.
    std::optional<std::vector<KeptMessage>> ToMakeRoom();
    // Those that came before the moment.
    std::optional<std::vector<KeptMessage>> Before(std::int64_t at);
    // Changes the state if it is one of `from`. False also if it is another one.
    bool Change(const std::string& id, std::initializer_list<const char*> from, const char* to,
                std::int64_t now);
    // Back to what a release found.
    bool ChangeBack(const std::string& id, std::int64_t now);

  private:
    bool Fail();
    std::optional<std::vector<KeptMessage>> Read(sqlite::Statement& statement);

    sqlite::Connection connection_;
    std::string complaint_;
};

}  // namespace quarantine
