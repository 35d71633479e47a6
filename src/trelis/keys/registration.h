// What the options register and unregister do to the store, by the table of keys.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "trelis/keys/table.h"

namespace trelis {

struct Registration {
    Program program;
    const char* serviceName;  // of its keys below /VTWIN/Versions
    std::string displayName;
    // What stands for a '*' of the program's rows: each key is written once a name.
    std::vector<std::string> names = {};
    // Keys and values that are written besides.
    std::vector<std::pair<std::string, std::string>> others = {};
};

// Writes the program's path, name and version, and what its rows register, in the place of what is
// there; keys of entries (kRegisteredKeys) only if the program's version isn't there yet. Where the
// store fails nothing is written, standard error has the reason, and the result stays. 1, or 0 if
// the program's path can't be got. All of it is one act of the person in the history; without a
// person nothing is kept there.
int Register(const Registration& registration, const std::string& person);
// Deletes the program's keys, with all below them, as one act too. Always 1.
int Unregister(const Registration& registration, const std::string& person);

}  // namespace trelis
