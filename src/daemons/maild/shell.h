// Inside maild/: the words of `vtmaild` for people: `test`, a scan from the shell, and `status`.
#pragma once

#include <span>

// Scans each file by the settings of the instance and prints what each section found and what would
// become of the message. The words are those behind "test": files, and before them `--chunks` for
// messages as BDAT leaves them, without the dots of the way. The exit code: 0 all pass, 1 something
// was found, 2 wrong words, 3 a file can't be read or the engine can't be asked.
int TestFiles(std::span<char* const> words);
// The words behind `status`: prints the engines of the daemon that runs. The exit code.
int ShowStatus(std::span<char* const> words);
