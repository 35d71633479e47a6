// What the store's tool needs beyond the operations: whole subtrees, several values at once, the
// changed paths.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace trelis {

using Values = std::vector<std::pair<std::string, std::string>>;

// Between TrelisInit2 and TrelisUninit, as all operations.

// Keys that were given a value, at and below key ("/": all), sorted. Nothing if the key doesn't
// exist.
std::optional<Values> DumpTree(const std::string& key);
// Stores all or none.
bool LoadValues(const Values& values);
std::optional<std::vector<std::string>> ListChildren(const std::string& key);
// Calls `use` on a thread of the store for each path that another process changes, until the
// process ends. Once, before any watch. False on failure.
bool FollowChanges(std::function<void(const std::string& path)> use);

}  // namespace trelis
