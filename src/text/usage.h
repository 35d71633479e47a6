// What every program answers to a person alike: --help, --version, and words that it doesn't know.
// Asked for first of all in main: none of it touches the instance's directory.
#pragma once

#include <optional>
#include <string>

inline constexpr int kExitUsage = 2;

struct Usage {
    const char* program;
    std::string text;  // ends in a newline
};

// The version of all programs, "1.2.3".
const char* ProgramVersion();
// Answers --help or --version (also -h) as the first word, and as the one behind it: `PROGRAM WORD
// --help` does nothing else. The exit code, or nothing if it was neither.
std::optional<int> AnswerHelp(const Usage& usage, int argc, const char* const* argv);
// The usage on standard output. The exit code: 1 if it can't be written.
int PrintUsage(const Usage& usage);
// `PROGRAM VERSION` in one line. As above.
int PrintVersion(const Usage& usage);
// What is wrong, and the usage, on standard error. Gives kExitUsage.
int WrongUsage(const Usage& usage, const std::string& what);
