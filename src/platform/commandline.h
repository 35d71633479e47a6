// The process's command line.
#pragma once

#include <string>
#include <vector>

namespace platform {

// The arguments of the process, the program's own name first. Empty if the system doesn't tell.
std::vector<std::string> CommandLineArguments();
// Puts other arguments in their place, for this process; none: the system's again. For a program
// that decides for the code below it what its arguments would decide.
void SetCommandLineArguments(std::vector<std::string> arguments);

}  // namespace platform
