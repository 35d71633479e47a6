// The console: its interrupt and its streams, for the foreground mode.
#pragma once

#include <cstddef>
#include <optional>
#include <string>

#include "platform/types.h"

#ifndef _WIN32
inline constexpr DWORD CTRL_C_EVENT = 0;
inline constexpr DWORD CTRL_BREAK_EVENT = 1;

using PHANDLER_ROUTINE = BOOL (*)(DWORD controlType);
// Calls the handler on a thread of its own for SIGINT (CTRL_C_EVENT) and SIGTERM
// (CTRL_BREAK_EVENT), also several times. Both signals must have been held back with HoldSignals
// before any thread was started.
BOOL SetConsoleCtrlHandler(PHANDLER_ROUTINE handler, BOOL add);
// A process here has its streams from the start: nothing is to be done, and that is TRUE.
BOOL AllocConsole();
#endif

namespace platform {

// Binds the standard streams to the console, each unbuffered.
void BindConsoleStreams();
// First thing in main: SIGPIPE is ignored, SIGINT and SIGTERM wait for SetConsoleCtrlHandler or the
// service dispatcher.
void HoldSignals();
// Undoes the waiting: for a command that nobody but these signals could end.
void ReleaseSignals();
// Ends the process at once, without destructors.
[[noreturn]] void ExitNow(int code);

// Switches the echo of the terminal off while it lives. One at a time in a process. A signal that
// ends the process meanwhile puts the terminal back first.
class QuietTerminal {
  public:
    // The descriptor stays the caller's, and open; one that is no terminal is left alone.
    explicit QuietTerminal(int descriptor);
    QuietTerminal(const QuietTerminal&) = delete;
    QuietTerminal& operator=(const QuietTerminal&) = delete;
    ~QuietTerminal();
    bool Active() const { return active_; }

  private:
    bool active_;
};

// The characters in a line of the terminal that standard output is; 0 if it is none.
std::size_t TerminalColumns();
bool OutputIsTerminal();

enum class Echo { kOn, kOff };
// Asks the person at the process's terminal, wherever its streams lead: a line without its end.
// Nothing if there is no terminal, or the line is not ended.
std::optional<std::string> AskAtTerminal(const char* prompt, Echo echo);

}  // namespace platform
