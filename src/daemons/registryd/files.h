// The configuration as a file: `vtregistry dump`, `load` and `diff`. A file is one flat JSON
// object, path to value, as any_bytes.h writes them. Each gives the exit code.
#pragma once

#include "daemons/registryd/typed.h"

// [KEY]: prints what stands at and below it.
int Dump(const Arguments& arguments);
// [--check] [FILE]: stores a file's values, or standard input's, all or none. With --check nothing
// is stored, and what programs won't take as it is, or don't read, is printed: 1 if there is any.
int Load(const Arguments& arguments);
// FILE [KEY]: what storing the file would change, and what stands beside it, at and below KEY; what
// programs write is passed over. As diff's own: 0 the same, 1 not the same, 2 a failure.
int Diff(const Arguments& arguments);
