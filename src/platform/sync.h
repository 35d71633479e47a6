// Events, threads, and the waits on them.
//
// Any thread may use any handle. A handle must not be closed while another thread waits on it.
// On Linux an object's state lives in the process; it has a descriptor (eventfd) while a thread
// sleeps on it, so that every wait is one poll(), also together with sockets, signals that nobody
// waits for cost no system call, and descriptors are as many as there are sleepers, not objects.
#pragma once

#include "platform/types.h"
#include "platform/unique.h"

#ifndef _WIN32
inline constexpr DWORD EVENT_ALL_ACCESS = 0x1F0003;
inline constexpr DWORD MAXIMUM_WAIT_OBJECTS = 64;

// A new event; manualReset keeps it signalled until ResetEvent, otherwise one wait consumes the
// signal. A name (not null) is known in this process: with a name that exists the same event is
// opened and the last error is ERROR_ALREADY_EXISTS. Null on failure.
HANDLE CreateEventA(LPSECURITY_ATTRIBUTES, BOOL manualReset, BOOL initialState, LPCSTR name);
// A further handle to a named event of this process. Null and ERROR_FILE_NOT_FOUND if there is
// none.
HANDLE OpenEventA(DWORD access, BOOL inherit, LPCSTR name);
BOOL SetEvent(HANDLE event);
BOOL ResetEvent(HANDLE event);

// Starts a thread at once. The handle is signalled when the procedure has returned; closing it
// leaves the thread alone. stackSize 0 is the default; flags must be 0. Null on failure.
using LPTHREAD_START_ROUTINE = DWORD (*)(LPVOID argument);
HANDLE CreateThread(LPSECURITY_ATTRIBUTES, ULONG_PTR stackSize, LPTHREAD_START_ROUTINE procedure,
                    LPVOID argument, DWORD flags, DWORD* threadId);
DWORD GetCurrentThreadId();
DWORD GetCurrentProcessId();

// Wait up to `milliseconds` (INFINITE: no limit) for any one handle. The result is WAIT_OBJECT_0
// plus the lowest index that is signalled, WAIT_TIMEOUT, or WAIT_FAILED. waitAll is not supported
// (WAIT_FAILED). Signals of the operating system restart the wait with the time that is left.
DWORD WaitForSingleObject(HANDLE handle, DWORD milliseconds);
DWORD WaitForMultipleObjects(DWORD count, const HANDLE* handles, BOOL waitAll, DWORD milliseconds);

// Gives back a handle. FALSE for null, INVALID_HANDLE_VALUE.
BOOL CloseHandle(HANDLE handle);
#endif

struct HandleKind {
    using Type = HANDLE;
    static constexpr HANDLE kNone = nullptr;
    static bool Owned(HANDLE handle) { return handle != nullptr && handle != INVALID_HANDLE_VALUE; }
    static void Close(HANDLE handle) { CloseHandle(handle); }
};
using UniqueHandle = platform::Unique<HandleKind>;
