// The table of keys as people read it.
#pragma once

#include <string>

// Each key that begins with the prefix: its path on a line, its meaning, default and effect on the
// next. '*' in a path stands for any one name.
std::string ListOfKeys(const std::string& prefix);
// The tables of docs/configuration.md, each below its heading.
std::string ReferenceTables();
