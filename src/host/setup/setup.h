// The word `setup` of the proxy.
#pragma once

#include <string>
#include <vector>

// The words behind `setup`; without any the person at the terminal is asked. Writes the
// configuration, says what it has set, and ends with what `check` finds. The exit code of the
// process: that of the check, or 2 if nothing was written. Before any thread.
int RunSetup(const std::vector<std::string>& words);
