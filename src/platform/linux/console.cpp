#include "platform/console.h"

#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <initializer_list>

#include "platform/descriptor.h"
#include "platform/sync.h"

namespace {

PHANDLER_ROUTINE g_handler = nullptr;  // written once, before the thread starts

sigset_t StopSignals() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    return set;
}

DWORD SignalThread(LPVOID) {
    const sigset_t set = StopSignals();
    for (;;) {
        int number = 0;
        if (sigwait(&set, &number) == 0)
            g_handler(number == SIGINT ? CTRL_C_EVENT : CTRL_BREAK_EVENT);
    }
}

// For QuietTerminal.
constexpr int kEnds[] = {SIGINT, SIGTERM, SIGHUP, SIGQUIT};

int g_descriptor = -1;
termios g_before;  // the terminal as it was

void RestoreAndEnd(int number) {
    tcsetattr(g_descriptor, TCSAFLUSH, &g_before);
    signal(number, SIG_DFL);
    raise(number);
}

}  // namespace

BOOL SetConsoleCtrlHandler(PHANDLER_ROUTINE handler, BOOL add) {
    if (handler == nullptr || add == FALSE || g_handler != nullptr) return FALSE;
    g_handler = handler;
    const UniqueHandle thread(CreateThread(nullptr, 0, SignalThread, nullptr, 0, nullptr));
    return thread ? TRUE : FALSE;
}

BOOL AllocConsole() { return TRUE; }

namespace platform {

void BindConsoleStreams() {
    for (FILE* stream : {stdout, stderr, stdin}) std::setvbuf(stream, nullptr, _IONBF, 0);
}

void HoldSignals() {
    signal(SIGPIPE, SIG_IGN);
    signal(SIGXFSZ, SIG_IGN);  // a file at its size limit is a failed write like any other
    const sigset_t set = StopSignals();
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

void ReleaseSignals() {
    const sigset_t set = StopSignals();
    pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
}

void ExitNow(int code) { _exit(code); }

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

bool OutputIsTerminal() { return isatty(STDOUT_FILENO) == 1; }

std::size_t TerminalColumns() {
    winsize size{};
    return ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 ? size.ws_col : 0;
}

std::optional<std::string> AskAtTerminal(const char* prompt, Echo echo) {
    const UniqueDescriptor terminal(open("/dev/tty", O_RDWR | O_CLOEXEC));
    if (!terminal) return std::nullopt;
    const auto say = [&terminal](const char* text) {
        [[maybe_unused]] const ssize_t done = write(terminal.Get(), text, std::strlen(text));
    };
    std::optional<QuietTerminal> quiet;
    if (echo == Echo::kOff) quiet.emplace(terminal.Get());
    say(prompt);  // only now: a fast answer would be shown, and thrown away
    char line[1024];
    const ssize_t count = read(terminal.Get(), line, sizeof line);
    quiet.reset();
    if (echo == Echo::kOff) say("\n");
    if (count <= 0 || line[count - 1] != '\n') return std::nullopt;
    return std::string(line, static_cast<std::size_t>(count) - 1);
}

}  // namespace platform
