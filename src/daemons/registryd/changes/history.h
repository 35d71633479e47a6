// changes/: what people have changed together, and how it is taken back; whole parts of the
// configuration in an editor.
//
// This header: `vtregistry history` and `undo`. Each gives the exit code.
#pragma once

#include <string>

#include "daemons/registryd/typed.h"
#include "trelis/admin.h"

// [--json] [KEY]: prints the acts that have changed a key at or below KEY, the newest last. As JSON
// one object a change and line. What accounts are known by is not shown.
int ShowHistory(const Arguments& arguments);
// [--force] [ACT]: gives the keys of an act, by default of the last one that stands and takes
// nothing back itself, the values from before it, all or none. A key that has been changed since is
// a reason not to, without --force. It is an act of its own, and can be taken back by its number.
int Undo(const Arguments& arguments);

// One change in words: the key by its short name, what it was and what it is.
std::string InWords(const trelis::ValueChange& change);
