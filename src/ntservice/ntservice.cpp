// The object itself: options, dispatcher, states, foreground mode.
#include "ntservice/ntservice.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <utility>

#include "ntservice/messages.h"
#include "platform/account.h"
#include "platform/console.h"
#include "platform/errortext.h"
#include "platform/home.h"
#include "platform/library.h"
#include "platform/window.h"

namespace {

// The platform's callbacks carry no context.
std::atomic<CNTService*> g_service{nullptr};
std::atomic<int> g_stopSignals{0};
constexpr int kForegroundExitCode = 1;
constexpr DWORD kReportHint = 3000;  // milliseconds
constexpr unsigned kTypesOwnId = 0xFFFFFFFF;

constexpr UINT kQueryEndSession = 17;
constexpr UINT kEndSession = 22;
constexpr char kHiddenWindowName[] = "VTSERVICE_HIDDENWND";
HWND g_hiddenWindow = nullptr;  // Run's thread alone

struct Option {
    const char* word;
    int (CNTService::*operation)();
};
constexpr Option kOptions[] = {
    {"install", &CNTService::InstallService},      {"uninstall", &CNTService::RemoveService},
    {"start", &CNTService::StartInstalledService}, {"stop", &CNTService::StopInstalledService},
    {"register", &CNTService::RegisterDefaults},   {"unregister", &CNTService::UnregisterDefaults},
};
constexpr char kForegroundOption[] = "debug";

// The end of the user's session ends a program that runs without a service manager.
LRESULT HiddenWindowProcedure(HWND window, UINT message, WPARAM wParam, LPARAM lParam) {
    const bool end = message == WM_QUIT ||
                     ((message == kQueryEndSession || message == kEndSession) && lParam == 0);
    if (!end) return DefWindowProcA(window, message, wParam, lParam);
    DestroyWindow(std::exchange(g_hiddenWindow, nullptr));
    if (CNTService* service = g_service) service->Stop();
    return 1;
}

void MakeHiddenWindow() {
    WNDCLASSA windowClass{};
    windowClass.lpfnWndProc = HiddenWindowProcedure;
    windowClass.lpszClassName = kHiddenWindowName;
    RegisterClassA(&windowClass);
    g_hiddenWindow = CreateWindowExA(0, kHiddenWindowName, "", 0, 0, 0, 0, 0, nullptr, nullptr,
                                     nullptr, nullptr);
}

}  // namespace

CNTService::CNTService(const char* name) : serviceName(name), displayName(name) {
    status_.dwServiceType = SERVICE_WIN32_OWN_PROCESS;
    status_.dwCurrentState = SERVICE_STOPPED;
    OSVERSIONINFOA version{};
    version.dwOSVersionInfoSize = sizeof version;
    hasServiceManager =
        GetVersionExA(&version) != FALSE && version.dwPlatformId == VER_PLATFORM_WIN32_NT ? 1 : 0;
    if (hasServiceManager != 0) FindUserIdentity();
    g_service = this;
}

CNTService::~CNTService() { g_service = nullptr; }

void CNTService::FindUserIdentity() {
    std::array<char, 255> user;
    std::array<char, 255> domain;
    std::vector<BYTE> identity(4096);
    DWORD userSize = user.size();
    DWORD domainSize = domain.size();
    auto identitySize = static_cast<DWORD>(identity.size());
    int use = 0;
    if (GetUserNameA(user.data(), &userSize) == FALSE ||
        LookupAccountNameA(nullptr, user.data(), identity.data(), &identitySize, domain.data(),
                           &domainSize, &use) == FALSE ||
        IsValidSid(identity.data()) == FALSE)
        return;
    userIdentity_.resize(GetLengthSid(identity.data()));
    if (CopySid(static_cast<DWORD>(userIdentity_.size()), userIdentity_.data(), identity.data()) ==
        FALSE)
        userIdentity_.clear();
}

bool CNTService::IsOption(std::string_view word) {
    return word == kForegroundOption ||
           std::any_of(std::begin(kOptions), std::end(kOptions),
                       [word](const Option& option) { return word == option.word; });
}

int CNTService::ProcessCommandLine(int argc, char** argv) {
    int (CNTService::*chosen)() = &CNTService::StartDispatcher;
    bool dispatch = true;
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], kForegroundOption) == 0) {
            foreground_ = true;
            return RunInForeground(argc - i, argv + i, 0);
        }
        for (const Option& option : kOptions) {
            if (std::strcmp(argv[i], option.word) != 0) continue;
            chosen = option.operation;
            dispatch = false;
        }
    }
    if (dispatch && hasServiceManager == 0) {
        foreground_ = true;
        return RunInForeground(argc, argv, 1);
    }
    if (!dispatch && platform::Home().empty()) {
        std::fprintf(stderr, "%s: %s\n", serviceName.c_str(), platform::HomeError().c_str());
        return -1;
    }
    if (!dispatch) platform::ReleaseSignals();
    return (this->*chosen)() != 0 ? 0 : -1;
}

int CNTService::StartDispatcher() {
    const SERVICE_TABLE_ENTRYA table[] = {{serviceName.c_str(), ServiceEntry}, {nullptr, nullptr}};
    const int result = StartServiceCtrlDispatcherA(table);
    if (result != FALSE) return result;
    char text[255];
    LogEvent(GetLastErrorText(text, sizeof text), EVENTLOG_ERROR_TYPE, kTypesOwnId);
    // A person who started it by hand sees no event log.
    std::fprintf(stderr,
                 "%s is a service: run it in the foreground with the word debug, or install and "
                 "start it\n",
                 serviceName.c_str());
    return result;
}

void CNTService::ServiceEntry(DWORD argc, char** argv) {
    if (CNTService* service = g_service) service->RunAsService(argc, argv);
}

void CNTService::RunAsService(DWORD argc, char** argv) {
    statusHandle_ = RegisterServiceCtrlHandlerA(serviceName.c_str(), ControlHandler);
    if (statusHandle_ == nullptr) return;
    if (foreground_) return Run(static_cast<int>(argc), argv);
    const bool told = Report([this](SERVICE_STATUS& status) {
        status = {serviceType_, SERVICE_START_PENDING, 0, 0, 0, ++checkPoint_, kReportHint};
    });
    if (told) Run(static_cast<int>(argc), argv);
    Report([this](SERVICE_STATUS& status) {
        status = {serviceType_, SERVICE_STOPPED, acceptedControls, 0, 0, 0, kReportHint};
    });
}

bool CNTService::Report(const std::function<void(SERVICE_STATUS& status)>& change) {
    SERVICE_STATUS status{};
    {
        const std::lock_guard lock(mutex_);
        change(status_);
        status = status_;
    }
    if (SetServiceStatus(statusHandle_, &status) != FALSE) return true;
    LogEvent(kSetStatusFailed, EVENTLOG_ERROR_TYPE, kTypesOwnId);
    return false;
}

int CNTService::ReportStatus(DWORD state, DWORD waitHint, DWORD specificCode) {
    if (foreground_) return 1;
    const bool told = Report([&](SERVICE_STATUS& status) {
        const bool settled = state == SERVICE_RUNNING || state == SERVICE_STOPPED;
        status.dwControlsAccepted = state == SERVICE_START_PENDING ? 0 : acceptedControls;
        status.dwCurrentState = state;
        status.dwWaitHint = waitHint;
        status.dwServiceSpecificExitCode = specificCode;
        status.dwWin32ExitCode = specificCode != 0 ? ERROR_SERVICE_SPECIFIC_ERROR : 0;
        status.dwCheckPoint = settled ? 0 : ++checkPoint_;
    });
    return told ? 1 : 0;
}

void CNTService::SetState(DWORD state) {
    const std::lock_guard lock(mutex_);
    status_.dwCurrentState = state;
}

DWORD CNTService::CurrentState() {
    const std::lock_guard lock(mutex_);
    return status_.dwCurrentState;
}

void CNTService::ControlHandler(DWORD code) {
    CNTService* service = g_service;
    if (service == nullptr) return;
    switch (code) {
        case SERVICE_CONTROL_STOP:
            service->SetState(SERVICE_STOP_PENDING);
            service->Stop();
            break;
        case SERVICE_CONTROL_PAUSE:
            service->SetState(SERVICE_PAUSE_PENDING);
            service->Pause();
            break;
        case SERVICE_CONTROL_CONTINUE:
            service->SetState(SERVICE_CONTINUE_PENDING);
            service->Continue();
            break;
        case SERVICE_CONTROL_INTERROGATE:
            service->ReportStatus(service->CurrentState(), kReportHint, 0);
            break;
        case SERVICE_CONTROL_SHUTDOWN:
            service->Shutdown();
            break;
        default:
            break;
    }
}

void CNTService::OpenConsole() {
    if (consoleAttached_) return;
    consoleAttached_ = true;
    AllocConsole();
    platform::BindConsoleStreams();
}

int CNTService::RunInForeground(int argc, char** argv, int hidden) {
    using RegisterServiceProcess = DWORD (*)(DWORD process, DWORD type);
    RegisterServiceProcess registerProcess = nullptr;
    if (hidden == 0) {
        OpenConsole();
        std::printf(kDebugging, displayName.c_str());
        SetConsoleCtrlHandler(ConsoleHandler, TRUE);
    } else {
        MakeHiddenWindow();
        if (HMODULE kernel = LoadLibraryA("kernel32.dll"))
            registerProcess = reinterpret_cast<RegisterServiceProcess>(
                GetProcAddress(kernel, "RegisterServiceProcess"));
        if (registerProcess != nullptr) registerProcess(0, 1);
    }
    Run(argc, argv);
    if (registerProcess != nullptr) registerProcess(0, 0);
    if (g_hiddenWindow != nullptr) DestroyWindow(std::exchange(g_hiddenWindow, nullptr));
    return kForegroundExitCode;
}

BOOL CNTService::ConsoleHandler(DWORD code) {
    CNTService* service = g_service;
    if ((code != CTRL_C_EVENT && code != CTRL_BREAK_EVENT) || service == nullptr) return FALSE;
    // A second wish to stop doesn't wait for what the first one is waiting for.
    if (g_stopSignals.fetch_add(1) > 0) platform::ExitNow(kForegroundExitCode);
    std::printf(kInterrupted, service->displayName.c_str());
    service->Stop();
    return TRUE;
}

char* CNTService::GetLastErrorText(char* buffer, DWORD size) {
    char* text = nullptr;
    const DWORD length = FormatMessageA(
        FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_ARGUMENT_ARRAY,
        nullptr, GetLastError(), 0, reinterpret_cast<char*>(&text), 0, nullptr);
    buffer[0] = '\0';
    if (length >= 2 && size >= length + 14) {
        std::memcpy(buffer, text, length - 2);
        buffer[length - 2] = '\0';
    }
    if (text != nullptr) LocalFree(text);
    return buffer;
}
