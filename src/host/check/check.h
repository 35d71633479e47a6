// The word `check` of the proxy.
#pragma once

#include <string>
#include <vector>

// The words behind `check`: nothing, or --json. Prints what it finds on standard output; the exit
// code of the process: 0, 1 with warnings, 2 with errors, and for words that it doesn't know.
// Before any thread.
int RunCheck(const std::vector<std::string>& words);
// The same for an instance that has just been configured, without a look at the words.
int CheckInstance(bool json);
