// Keys as people type them: full paths, which are taken as they are, and short names, which have to
// be known ones (trelis/keys/names.h).
#pragma once

#include <optional>
#include <string>
#include <vector>

using Arguments = std::vector<std::string>;

inline constexpr int kExitFailed = 1;

// Says it on standard error. Gives kExitFailed.
int Failed(const std::string& what);
// The same of words that make no sense together. Gives kExitUsage.
int WrongWords(const std::string& what);
// Says that there is no such key, and which one may be meant.
int UnknownKey(const std::string& typed);
// The path of a key, or of what stands above keys. Nothing, after UnknownKey: an unknown short
// name.
std::optional<std::string> PathOf(const std::string& typed);
// " Is KEY meant?", or nothing where no known key is near.
std::string Hint(const std::string& typed);
// Whether a path is that of the key, which may be "/", or stands below it.
bool IsAtOrBelow(const std::string& path, const std::string& key);
