#include "platform/console.h"

#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <initializer_list>

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

}  // namespace platform
