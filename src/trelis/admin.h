// What the store's tool needs beyond the operations: whole subtrees, several values at once, the
// changed paths.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace trelis {

using Values = std::vector<std::pair<std::string, std::string>>;

// As TrelisInit2, for a process that only reads and soon ends: it succeeds on a full disk and on a
// file system that can't be written too, if the file is whole there.
int InitToRead();
// Why TrelisInit2 or InitToRead has failed, for a person, with the path: HomeError, or "can't open
// the store ...".
std::string WhyNotOpen();

// All others between TrelisInit2 and TrelisUninit, as all operations.

// Why the last change has failed, for a person, with the store's path; `otherwise` if it wasn't the
// store's fault.
std::string WhyNotChanged(const std::string& otherwise);
// Keys that were given a value, at and below key ("/": all), sorted. Nothing if the key doesn't
// exist.
std::optional<Values> DumpTree(const std::string& key);
// How many changes there have been since the store was made; -1 if it can't be read.
std::int64_t CountChanges();
// Stores all or none.
bool LoadValues(const Values& values);
// Deletes keys with all below them, all or none. With prune the keys above go too that were only
// made as parents and have nothing left below them.
bool DeleteTrees(const std::vector<std::string>& keys, bool prune);

// What becomes of one key's value; nothing: it has none, before or afterwards. Keys below it stay.
struct ValueChange {
    std::string path;
    std::optional<std::string> before;
    std::optional<std::string> after;
};
enum class Applied { kDone, kOtherwise, kFailed };
// Makes all of the changes or none. kOtherwise: a key has not the value that it should have had
// before, and `where` is that key; with `force` that isn't looked at. undoes: the act that this
// takes back, or 0.
Applied ApplyChanges(const std::vector<ValueChange>& changes, bool force, std::int64_t undoes,
                     std::string& where);

// What a person has changed together.
struct Act {
    std::int64_t number = 0;  // from 1 on, rising
    std::int64_t undoes = 0;  // the act that it has taken back, or 0
    std::int64_t time = 0;    // seconds since 1970
    std::string who;
    std::string how;  // the word by which it was done: "set"
    std::vector<ValueChange> changes;
    bool undone = false;  // by another act that stands
};
// From now on what this process changes is kept as this person's, within bounds: some acts.
// Programs' own writes are none.
void KeepHistory(const std::string& who, const std::string& how);
// The oldest first. Nothing if the store can't be read.
std::optional<std::vector<Act>> ReadHistory();

std::optional<std::vector<std::string>> ListChildren(const std::string& key);
// Calls `use` on a thread of the store for each path that another process changes, until the
// process ends. Once, before any watch. False on failure.
bool FollowChanges(std::function<void(const std::string& path)> use);

}  // namespace trelis
