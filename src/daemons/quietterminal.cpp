#include "daemons/quietterminal.h"

#include <signal.h>
#include <termios.h>

namespace stats {
namespace {

constexpr int kEnds[] = {SIGINT, SIGTERM, SIGHUP, SIGQUIT};

int g_descriptor = -1;
termios g_before;  // the terminal as it was

void RestoreAndEnd(int number) {
    tcsetattr(g_descriptor, TCSAFLUSH, &g_before);
    signal(number, SIG_DFL);
    raise(number);
}

}  // namespace

QuietTerminal::QuietTerminal(int descriptor) : active_(tcgetattr(descriptor, &g_before) == 0) {
    if (!active_) return;
    g_descriptor = descriptor;
    for (const int number : kEnds) signal(number, RestoreAndEnd);
    termios silent = g_before;
    silent.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    tcsetattr(descriptor, TCSAFLUSH, &silent);
}

QuietTerminal::~QuietTerminal() {
    if (!active_) return;
    tcsetattr(g_descriptor, TCSAFLUSH, &g_before);
    for (const int number : kEnds) signal(number, SIG_DFL);
}

}  // namespace stats
