// The table of keys as people read it.
#pragma once

#include <string>

// Each key that begins with the prefix: its path on a line, its meaning, default and effect on the
// next. '*' in a path stands for any one name.
std::string ListOfKeys(const std::string& prefix);
// Values of a key that is typed by either of its names, one a line, for completion: the words that
// it knows, or its default. Empty for an unknown key.
std::string ValuesOf(const std::string& typed);
// The tables of docs/configuration.md, each below its heading.
std::string ReferenceTables();
