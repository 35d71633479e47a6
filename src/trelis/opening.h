// Inside trelis/: how a process comes to the store file.
#pragma once

#include <string>

#include "trelis/sqlite.h"

namespace trelis {

// The instance's store file; empty without an instance.
std::string StorePath();
// Opens the file and makes its tables. Null on failure, and `why` says it for a person.
sqlite::Connection OpenDatabase(std::string& why);
// As OpenDatabase for who only reads. Even to read, SQLite makes files beside the store's where no
// other process has it open; where there is no room for them, or none can be made, this is a copy
// in memory of what stands in the file now. Null also where changes wait in the journal of a
// process that died: without them the file is not what was stored.
sqlite::Connection OpenToRead(std::string& why);

}  // namespace trelis
