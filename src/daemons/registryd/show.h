// `vtregistry show`: the keys that programs know, as they stand.
#pragma once

#include <string>

#include "daemons/registryd/typed.h"

// [--changed] [PREFIX]: a short name, or a path, of a key or of what stands above keys. Prints for
// each key its short name, its value, where that comes from, and what it means:
//
//     default     no value stands, or the default; it is shown
//     registered  what `register` wrote
//     set         anything else
//     wrong       a value that programs don't take as it is
//     unknown     a key with a value that no program reads; by its path
//
// With --changed only the last three. The exit code.
int Show(const Arguments& arguments);
// The short names of all known keys, one a line, with the names that the store has for their '*'s.
std::string ShortNames();
