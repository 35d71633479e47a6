// The options that talk to the service manager: install, uninstall, start, stop.
#include <array>
#include <chrono>
#include <cstdio>
#include <memory>
#include <new>
#include <thread>

#include "ntservice/messages.h"
#include "ntservice/ntservice.h"
#include "platform/console.h"
#include "platform/errortext.h"
#include "platform/file.h"
#include "platform/library.h"

namespace {

constexpr char kRunServicesKey[] = "Software\\Microsoft\\Windows\\CurrentVersion\\RunServices";
constexpr DWORD kLockStatusSize = 268;
constexpr DWORD kRestartDelay = 1000;  // milliseconds
// A service that stays in a pending state must not hold the command for ever.
constexpr int kLongestWait = 60;  // seconds
constexpr std::chrono::seconds kLook{1};

// The flush lets a person see the line that is not ended yet.
void Print(const char* text) {
    std::fputs(text, stdout);
    std::fflush(stdout);
}

void PrintName(const char* format, const std::string& name) {
    std::printf(format, name.c_str());
    std::fflush(stdout);
}

// A point for each second in which the service is in the pending state.
void WaitWhile(DWORD pendingState, const ServiceHandle& service, SERVICE_STATUS& status) {
    std::this_thread::sleep_for(kLook);
    for (int waited = 1; QueryServiceStatus(service.get(), &status) != FALSE &&
                         status.dwCurrentState == pendingState && waited < kLongestWait;
         ++waited) {
        Print(".");
        std::this_thread::sleep_for(kLook);
    }
}

// Whether the service has stopped. Not a word about one that accepts no stop, as it is not running.
bool StopAndWait(const ServiceHandle& service, const std::string& displayName) {
    SERVICE_STATUS status{};
    if (ControlService(service.get(), SERVICE_CONTROL_STOP, &status) == FALSE) return false;
    PrintName(kStopping, displayName);
    WaitWhile(SERVICE_STOP_PENDING, service, status);
    const bool stopped = status.dwCurrentState == SERVICE_STOPPED;
    PrintName(stopped ? kStopped : kStopFailed, displayName);
    return stopped;
}

RegistryKeyHandle OpenRunServices() {
    HKEY key = nullptr;
    RegCreateKeyA(HKEY_LOCAL_MACHINE, kRunServicesKey, &key);
    return RegistryKeyHandle(key);
}

// Prints a failure line with the last error's text; the second, behind the service's name.
void PrintError(const char* format) {
    char text[kErrorTextSize];
    std::printf(format, CNTService::GetLastErrorText(text, sizeof text));
}

void PrintError(const char* format, const std::string& name) {
    char text[kErrorTextSize];
    std::printf(format, name.c_str(), CNTService::GetLastErrorText(text, sizeof text));
}

// These print their failure line.
ServiceHandle OpenManager() {
    ServiceHandle manager(OpenSCManagerA(nullptr, nullptr, SC_MANAGER_ALL_ACCESS));
    if (manager == nullptr) PrintError(kOpenManagerFailed);
    return manager;
}

ServiceHandle OpenInstalled(const ServiceHandle& manager, const std::string& serviceName) {
    if (manager == nullptr) return nullptr;
    ServiceHandle service(OpenServiceA(manager.get(), serviceName.c_str(), SERVICE_ALL_ACCESS));
    if (service == nullptr) PrintError(kOpenServiceFailed);
    return service;
}

}  // namespace

int CNTService::InstallService() {
    std::array<char, kProgramPathLimit + 1> path;
    const DWORD length = GetModuleFileNameA(nullptr, path.data(), path.size());
    if (length == 0 || length >= path.size()) {
        PrintError(kInstallFailed, displayName);
        return 0;
    }
    if (hasServiceManager == 0) {
        const RegistryKeyHandle key = OpenRunServices();
        if (key == nullptr) return 0;
        RegSetValueExA(key.get(), serviceName.c_str(), 0, REG_EXPAND_SZ,
                       reinterpret_cast<const BYTE*>(path.data()), length + 1);
        return 1;
    }
    const ServiceHandle manager = OpenManager();
    if (manager == nullptr) return 0;
    std::string list;
    for (const std::string& each : dependencies) list.append(each).push_back('\0');
    list.push_back('\0');
    const ServiceHandle service(CreateServiceA(
        manager.get(), serviceName.c_str(), displayName.c_str(), desiredAccess_, serviceType_,
        startType_, errorControl_, path.data(), nullptr, nullptr, list.c_str(), nullptr, nullptr));
    if (service == nullptr) {
        PrintError(kCreateServiceFailed);
        return 0;
    }
    InstallEventSource(path.data(),
                       EVENTLOG_ERROR_TYPE | EVENTLOG_WARNING_TYPE | EVENTLOG_INFORMATION_TYPE);
    ConfigureRecovery(path.data());
    LogEvent(kInstalled, EVENTLOG_INFORMATION_TYPE, static_cast<unsigned>(-1));
    return 1;
}

void CNTService::ConfigureRecovery(const char*) {
    const ServiceHandle manager = OpenManager();
    if (manager == nullptr) return;
    SC_LOCK lock = LockServiceDatabase(manager.get());
    if (lock == nullptr) {
        if (GetLastError() != ERROR_SERVICE_DATABASE_LOCKED) return PrintError(kLockFailed);
        const std::unique_ptr<char[]> block(new (std::nothrow) char[kLockStatusSize]);
        if (block == nullptr) return PrintError(kAllocFailed);
        auto* holder = reinterpret_cast<QUERY_SERVICE_LOCK_STATUSA*>(block.get());
        DWORD needed = 0;
        if (QueryServiceLockStatusA(manager.get(), holder, kLockStatusSize, &needed) == FALSE)
            return PrintError(kQueryLockFailed);
        if (holder->fIsLocked != 0) {
            std::printf(kLockedBy, holder->lpLockOwner, static_cast<int>(holder->dwLockDuration));
        } else {
            Print(kNoLongerLocked);
        }
        return;
    }
    if (const ServiceHandle service = OpenInstalled(manager, serviceName))
        SetFailureActions(service.get());
    UnlockServiceDatabase(lock);
}

void CNTService::SetFailureActions(SC_HANDLE service) {
    // Older systems have no such operation; there the service goes without.
    HMODULE library = LoadLibraryA("Advapi32.dll");
    if (library == nullptr) return;
    if (auto change = reinterpret_cast<decltype(&ChangeServiceConfig2A)>(
            GetProcAddress(library, "ChangeServiceConfig2A"))) {
        SERVICE_DESCRIPTIONA text{description.data()};
        change(service, SERVICE_CONFIG_DESCRIPTION, &text);
        SC_ACTION restart{SC_ACTION_RESTART, kRestartDelay};
        SERVICE_FAILURE_ACTIONSA actions{0, nullptr, nullptr, 1, &restart};
        if (change(service, SERVICE_CONFIG_FAILURE_ACTIONS, &actions) == FALSE)
            PrintError(kReconfigurationFailed);
    }
    FreeLibrary(library);
}

int CNTService::RemoveService() {
    if (hasServiceManager == 0) {
        const RegistryKeyHandle key = OpenRunServices();
        if (key != nullptr) RegDeleteValueA(key.get(), serviceName.c_str());
        return key != nullptr ? 1 : 0;
    }
    bool deleted = false;
    {
        const ServiceHandle service = OpenInstalled(OpenManager(), serviceName);
        if (service == nullptr) return 0;
        StopAndWait(service, displayName);  // deleted also if it did not stop
        deleted = DeleteService(service.get()) != FALSE;
        if (deleted) {
            PrintName(kRemoved, displayName);
        } else {
            PrintError(kDeleteServiceFailed);
        }
    }
    if (deleted) RemoveEventSource();
    return deleted ? 1 : 0;
}

int CNTService::StopInstalledService() {
    const ServiceHandle service = OpenInstalled(OpenManager(), serviceName);
    return service != nullptr && StopAndWait(service, displayName) ? 1 : 0;
}

int CNTService::StartInstalledService() {
    const ServiceHandle service = OpenInstalled(OpenManager(), serviceName);
    if (service == nullptr) return 0;
    PrintName(kStarting, displayName);
    if (StartServiceA(service.get(), 0, nullptr) == FALSE) {
        PrintError(kStartError, displayName);
        return 0;
    }
    SERVICE_STATUS status{};
    WaitWhile(SERVICE_START_PENDING, service, status);
    if (status.dwCurrentState == SERVICE_RUNNING) {
        if (platform::OutputIsTerminal()) Print("\n");  // programs that read it know it without
        return 1;
    }
    PrintName(kStartFailed, displayName);
    return 0;
}
