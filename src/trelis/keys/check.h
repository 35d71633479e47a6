// What a person may set a key to, by the table of keys. Programs bear any value (settings.h); this
// is for who sets it, who wants to hear of a slip at once.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "trelis/keys/table.h"

namespace trelis {

// The value as programs read it, of one that a person wrote: `10m` of seconds is 600, `on` of a
// flag Y, a word in any case the table's. What isn't understood stays as it is.
std::string AsRead(const KeyRow& row, std::string_view value);
// What the value should be instead, as `a number from 0 to 50`; nothing if programs take it as it
// is. An empty value stands for the default and is always taken.
std::optional<std::string> WantedInstead(const KeySection& section, const KeyRow& row,
                                         const std::string& value);
// The default in words.
std::string DefaultInWords(const KeyRow& row);

}  // namespace trelis
