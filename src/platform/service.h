// Services: the service database, their control, and a service's own side of both. On Windows the
// system's; here a small manager of our own that needs no other one.
//
// A service is a record in the instance's directory. StartServiceA starts a supervisor
// (supervisor.cpp, one small process a service) that launches the program, keeps its status, hands
// controls on and starts it again when it dies, as its failure actions say. A process that systemd
// has started (NOTIFY_SOCKET) reports there instead and takes SIGTERM for the stop control.
//
// All calls may be made from any thread; a handle is used by one thread at a time.
#pragma once

#include "platform/types.h"

#ifndef _WIN32
inline constexpr DWORD SERVICE_STOPPED = 1;
inline constexpr DWORD SERVICE_START_PENDING = 2;
inline constexpr DWORD SERVICE_STOP_PENDING = 3;
inline constexpr DWORD SERVICE_RUNNING = 4;
inline constexpr DWORD SERVICE_CONTINUE_PENDING = 5;
inline constexpr DWORD SERVICE_PAUSE_PENDING = 6;
inline constexpr DWORD SERVICE_PAUSED = 7;

inline constexpr DWORD SERVICE_CONTROL_STOP = 1;
inline constexpr DWORD SERVICE_CONTROL_PAUSE = 2;
inline constexpr DWORD SERVICE_CONTROL_CONTINUE = 3;
inline constexpr DWORD SERVICE_CONTROL_INTERROGATE = 4;
inline constexpr DWORD SERVICE_CONTROL_SHUTDOWN = 5;

inline constexpr DWORD SERVICE_ACCEPT_STOP = 1;
inline constexpr DWORD SERVICE_ACCEPT_PAUSE_CONTINUE = 2;
inline constexpr DWORD SERVICE_ACCEPT_SHUTDOWN = 4;

inline constexpr DWORD SERVICE_WIN32_OWN_PROCESS = 16;
inline constexpr DWORD SERVICE_AUTO_START = 2;
inline constexpr DWORD SERVICE_ERROR_NORMAL = 1;
inline constexpr DWORD SC_MANAGER_ALL_ACCESS = 0xF003F;
inline constexpr DWORD SERVICE_ALL_ACCESS = 0xF01FF;

struct SERVICE_STATUS {
    DWORD dwServiceType;
    DWORD dwCurrentState;
    DWORD dwControlsAccepted;
    DWORD dwWin32ExitCode;
    DWORD dwServiceSpecificExitCode;
    DWORD dwCheckPoint;
    DWORD dwWaitHint;  // milliseconds
};

struct ServiceHandleRecord;
using SC_HANDLE = ServiceHandleRecord*;
using SC_LOCK = void*;

// The database of this instance. Null with ERROR_ACCESS_DENIED if its directory can't be used.
SC_HANDLE OpenSCManagerA(LPCSTR machine, LPCSTR database, DWORD access);
// A new record. dependencies: service names, ended by an empty one; null: none. Null with
// ERROR_SERVICE_EXISTS, ERROR_INVALID_NAME or the error of writing the record.
SC_HANDLE CreateServiceA(SC_HANDLE manager, LPCSTR name, LPCSTR displayName, DWORD access,
                         DWORD type, DWORD startType, DWORD errorControl, LPCSTR path,
                         LPCSTR loadOrderGroup, DWORD* tag, LPCSTR dependencies, LPCSTR account,
                         LPCSTR password);
// Null with ERROR_SERVICE_DOES_NOT_EXIST.
SC_HANDLE OpenServiceA(SC_HANDLE manager, LPCSTR name, DWORD access);
// The record goes at once; a service that still runs goes on until it is stopped, and is not
// started again.
BOOL DeleteService(SC_HANDLE service);
BOOL CloseServiceHandle(SC_HANDLE handle);

// Starts the service's dependencies that don't run and waits for each, then the service; returns
// when its process has come to its dispatcher. No arguments are passed on. FALSE with
// ERROR_SERVICE_ALREADY_RUNNING, ERROR_SERVICE_DEPENDENCY_DELETED, ERROR_SERVICE_DEPENDENCY_FAIL,
// ERROR_CIRCULAR_DEPENDENCY, ERROR_SERVICE_REQUEST_TIMEOUT (30 s, or the process has ended) or the
// error of launching the program.
BOOL StartServiceA(SC_HANDLE service, DWORD argumentCount, LPCSTR* arguments);
// Hands a control code to the service and waits until its handler has returned, 30 s at most;
// status is filled in. FALSE with ERROR_SERVICE_NOT_ACTIVE, ERROR_INVALID_SERVICE_CONTROL,
// ERROR_SERVICE_CANNOT_ACCEPT_CTRL or ERROR_SERVICE_REQUEST_TIMEOUT. Services that depend on this
// one don't keep it from stopping: a daemon can be renewed under a running proxy.
BOOL ControlService(SC_HANDLE service, DWORD control, SERVICE_STATUS* status);
BOOL QueryServiceStatus(SC_HANDLE service, SERVICE_STATUS* status);

struct QUERY_SERVICE_LOCK_STATUSA {
    DWORD fIsLocked;
    LPSTR lpLockOwner;     // into the caller's buffer
    DWORD dwLockDuration;  // seconds
};
// One holder an instance. Null with ERROR_SERVICE_DATABASE_LOCKED.
SC_LOCK LockServiceDatabase(SC_HANDLE manager);
BOOL UnlockServiceDatabase(SC_LOCK lock);
BOOL QueryServiceLockStatusA(SC_HANDLE manager, QUERY_SERVICE_LOCK_STATUSA* status, DWORD size,
                             DWORD* needed);

inline constexpr DWORD SERVICE_CONFIG_DESCRIPTION = 1;
inline constexpr DWORD SERVICE_CONFIG_FAILURE_ACTIONS = 2;
inline constexpr int SC_ACTION_RESTART = 1;
struct SERVICE_DESCRIPTIONA {
    LPSTR lpDescription;
};
struct SC_ACTION {
    int Type;
    DWORD Delay;  // milliseconds
};
struct SERVICE_FAILURE_ACTIONSA {
    DWORD dwResetPeriod;
    LPSTR lpRebootMsg;
    LPSTR lpCommand;
    DWORD cActions;
    SC_ACTION* lpsaActions;  // the last one stays in force
};
// Level 1 the description, level 2 the failure actions.
BOOL ChangeServiceConfig2A(SC_HANDLE service, DWORD level, LPVOID info);

// The service's own side.
using LPSERVICE_MAIN_FUNCTIONA = void (*)(DWORD argc, LPSTR* argv);
using LPHANDLER_FUNCTION = void (*)(DWORD control);
struct SERVICE_TABLE_ENTRYA {
    LPCSTR lpServiceName;
    LPSERVICE_MAIN_FUNCTIONA lpServiceProc;
};
struct ServiceStatusRecord;
using SERVICE_STATUS_HANDLE = ServiceStatusRecord*;

// Calls the first entry's procedure on a thread of its own and the control handler on the calling
// one; returns TRUE when the service has stopped and its procedure has returned. FALSE with
// ERROR_FAILED_SERVICE_CONTROLLER_CONNECT if no manager started this process.
BOOL StartServiceCtrlDispatcherA(const SERVICE_TABLE_ENTRYA* table);
// Null if the process isn't in the dispatcher, or for another service's name.
SERVICE_STATUS_HANDLE RegisterServiceCtrlHandlerA(LPCSTR name, LPHANDLER_FUNCTION handler);
BOOL SetServiceStatus(SERVICE_STATUS_HANDLE handle, const SERVICE_STATUS* status);
#else
#include <winsvc.h>
#endif

namespace platform {

// Whether a service manager has started this process, so that it should enter the dispatcher.
bool StartedByServiceManager();

}  // namespace platform
