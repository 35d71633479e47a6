// A terminal that shows nothing of what is typed, for passwords.
#pragma once

namespace stats {

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

}  // namespace stats
