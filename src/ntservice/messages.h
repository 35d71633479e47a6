// Inside ntservice/: the texts that the options print, and the small owners that they share.
#pragma once

#include <memory>

#include "platform/registry.h"
#include "platform/service.h"

inline constexpr char kInstallFailed[] = "Unable to install %s - %s\n";
inline constexpr char kOpenManagerFailed[] = "OpenSCManager failed - %s\n";
inline constexpr char kCreateServiceFailed[] = "CreateService failed - %s\n";
inline constexpr char kInstalled[] = "Service installed";
inline constexpr char kOpenServiceFailed[] = "OpenService failed - %s\n";
inline constexpr char kDeleteServiceFailed[] = "DeleteService failed - %s\n";
inline constexpr char kRemoved[] = "%s removed.\n";
inline constexpr char kStopping[] = "Stopping %s.";
inline constexpr char kStopped[] = "\n%s stopped.\n";
inline constexpr char kStopFailed[] = "\n%s failed to stop.\n";
inline constexpr char kStarting[] = "Starting up %s.";
inline constexpr char kStartFailed[] = "\n%s failed to start.\n";
inline constexpr char kStartError[] = "\n%s failed to start: %s\n";
inline constexpr char kDebugging[] = "Debugging %s.\n";
inline constexpr char kInterrupted[] = "Stopping %s.\n";
inline constexpr char kSetStatusFailed[] = "SetServiceStatus() failed";
inline constexpr char kLockFailed[] = "LockServiceDatabase failed - %s\n";
inline constexpr char kAllocFailed[] = "LocalAlloc failed - %s\n";
inline constexpr char kQueryLockFailed[] = "QueryServiceLockStatus failed - %s\n";
inline constexpr char kLockedBy[] = "Locked by: %s, duration: %d seconds\n";
inline constexpr char kNoLongerLocked[] = "No longer locked\n";
inline constexpr char kReconfigurationFailed[] = "Service reconfiguration failed - %s\n";

inline constexpr DWORD kErrorTextSize = 256;
inline constexpr DWORD kProgramPathLimit = 1023;  // characters

struct CloseService {
    void operator()(SC_HANDLE handle) const { CloseServiceHandle(handle); }
};
using ServiceHandle = std::unique_ptr<ServiceHandleRecord, CloseService>;

struct CloseKey {
    void operator()(HKEY key) const { RegCloseKey(key); }
};
using RegistryKeyHandle = std::unique_ptr<RegistryKey, CloseKey>;
