// Inside trelis/: the store file. One object a process, shared by all holders of TrelisInit2.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "trelis/admin.h"
#include "trelis/history.h"
#include "trelis/sqlite.h"

namespace trelis {

// A full path stays below this, its zero byte included.
inline constexpr std::size_t kPathSize = 512;

// Whether the text is an absolute path without empty components and short enough. "/" is the root.
bool ValidPath(const std::string& path, bool allowRoot);
// Whether a change at `changed` concerns one who watches `watched`: at it, below it, or a deletion
// above it.
bool Concerns(const std::string& changed, const std::string& watched);

using Pairs = std::vector<std::pair<std::string, std::string>>;

// Any thread; one at a time inside. False or nothing on failure.
class Store {
  public:
    // With what opening.h gives. Null on failure; why says it.
    static std::unique_ptr<Store> Make(sqlite::Connection database, std::string& why);

    // Nothing: no such key. A key made only as a parent gives an empty text.
    std::optional<std::string> Get(const std::string& key);
    // All or none.
    bool Set(const Pairs& values);
    // Each with all below it; all or none. With prune also those above that were only made for it.
    bool Delete(const std::vector<std::string>& keys, bool prune);
    // As ApplyChanges.
    Applied Apply(const std::vector<ValueChange>& changes, bool force, std::int64_t undoes,
                  std::string& where);
    // Why the last change has failed, for a person; empty if it has not, or was none that could be.
    std::string Failure();
    void KeepHistory(const std::string& who, const std::string& how);
    std::optional<std::vector<Act>> ReadHistory();
    std::optional<std::vector<std::string>> Children(const std::string& key);
    // Keys that were given a value, at and below key, in byte order.
    std::optional<Pairs> Dump(const std::string& key);
    // Those that there have ever been; -1 on failure.
    std::int64_t Changes();
    // Marks this process's rows among the changes.
    std::int64_t Origin() const { return origin_; }

  private:
    explicit Store(sqlite::Connection database);
    bool Execute(const char* sql) { return sqlite::Execute(database_.get(), sql); }
    sqlite::Statement Prepare(const char* sql) { return {database_.get(), sql}; }
    // These are called within a transaction.
    bool Begin(std::int64_t undoes);
    std::optional<std::string> Value(const std::string& key);
    bool SetOne(const std::string& key, const std::string& value);
    bool TakeValue(const std::string& key);
    bool DeleteOne(const std::string& key, bool prune);
    bool Prune(std::string path);
    bool NoteDeleted(const std::string& key);
    bool NoteChange(const std::string& key);
    bool Commit(bool good);

    std::mutex mutex_;  // guards all below
    sqlite::Connection database_;
    sqlite::Statement get_;
    History history_;
    std::string failure_;
    const std::int64_t origin_;
};

}  // namespace trelis
