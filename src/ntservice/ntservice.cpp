#include "ntservice/ntservice.h"

#include <cstdio>
#include <cstring>

#include "platform/console.h"

namespace {

// The platform's callbacks carry no context.
std::atomic<CNTService*> g_service{nullptr};
std::atomic<int> g_stopSignals{0};
constexpr int kForegroundExitCode = 1;

}  // namespace

CNTService::CNTService(const char* name) : serviceName(name), displayName(name) {
    g_service = this;
}

CNTService::~CNTService() { g_service = nullptr; }

int CNTService::ProcessCommandLine(int argc, char** argv) {
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "debug") == 0) {
            foreground_ = true;
            return RunInForeground(argc - i, argv + i);
        }
    }
    std::fprintf(stderr, "%s: to run in the foreground, start it with the word debug\n",
                 serviceName.c_str());
    return -1;
}

int CNTService::RunInForeground(int argc, char** argv) {
    std::setvbuf(stdout, nullptr, _IONBF, 0);
    std::printf("Debugging %s.\n", displayName.c_str());
    SetConsoleCtrlHandler(ConsoleHandler, TRUE);
    Run(argc, argv);
    return kForegroundExitCode;
}

int CNTService::ReportStatus(DWORD, DWORD, DWORD) {
    // Without a service manager there is nobody to tell.
    return foreground_ ? 1 : 0;
}

BOOL CNTService::ConsoleHandler(DWORD code) {
    CNTService* service = g_service;
    if ((code != CTRL_C_EVENT && code != CTRL_BREAK_EVENT) || service == nullptr) return FALSE;
    // A second wish to stop doesn't wait for what the first one is waiting for.
    if (g_stopSignals.fetch_add(1) > 0) platform::ExitNow(kForegroundExitCode);
    std::printf("Stopping %s.\n", service->displayName.c_str());
    service->Stop();
    return TRUE;
}
