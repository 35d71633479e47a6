// Named pipes and completion queues.
//
// On Linux a pipe \\.\pipe\NAME is the Unix stream socket pipes/NAME of the instance's directory
// (home.h). Reads and writes on a pipe that is bound to a completion queue are asynchronous: each
// started operation gives exactly one completion on that queue, also one that completes at once or
// is ended by the pipe's close. What would block is finished by a thread that waits on the queue.
// At most one read, one write and one connect may be outstanding on a pipe; the caller keeps buffer
// and OVERLAPPED alive until the completion has been taken.
#pragma once

#include "platform/types.h"

#ifndef _WIN32
inline constexpr DWORD GENERIC_READ = 0x80000000U;
inline constexpr DWORD GENERIC_WRITE = 0x40000000U;
inline constexpr DWORD OPEN_EXISTING = 3;
inline constexpr DWORD FILE_FLAG_OVERLAPPED = 0x40000000U;
inline constexpr DWORD PIPE_ACCESS_DUPLEX = 3;
inline constexpr DWORD PIPE_TYPE_BYTE = 0;

// Internal and InternalHigh are the layer's own; Offset and OffsetHigh are kept for the layout.
struct OVERLAPPED {
    ULONG_PTR Internal;
    ULONG_PTR InternalHigh;
    DWORD Offset;
    DWORD OffsetHigh;
    HANDLE hEvent;
};

// Opens a pipe by its path \\.\pipe\NAME for reading and writing. INVALID_HANDLE_VALUE on failure,
// with the last error ERROR_FILE_NOT_FOUND (no such pipe, or nobody behind it), ERROR_PIPE_BUSY
// (backlog full) or another. Only pipes can be opened.
HANDLE CreateFileA(LPCSTR path, DWORD access, DWORD share, LPSECURITY_ATTRIBUTES, DWORD disposition,
                   DWORD flags, HANDLE templateFile);

// A further instance of the pipe, on the serving side. The first instance of a name makes the
// socket; the last one's close removes it. ERROR_ACCESS_DENIED if another process serves the name.
HANDLE CreateNamedPipeA(LPCSTR path, DWORD openMode, DWORD pipeMode, DWORD maxInstances,
                        DWORD outSize, DWORD inSize, DWORD defaultTimeout, LPSECURITY_ATTRIBUTES);
// Starts waiting for a client: FALSE with ERROR_IO_PENDING when started; the completion comes to
// the queue.
BOOL ConnectNamedPipe(HANDLE pipe, OVERLAPPED* overlapped);
// Cuts the connection of either end for good: what is outstanding fails, and so does what is
// started later. Any thread.
BOOL DisconnectNamedPipe(HANDLE pipe);

// With INVALID_HANDLE_VALUE and null: a new queue. `threads` 1: one thread or task at a time will
// use it, to post too, for one connected pipe; 0: any number of threads, no tasks, for any number
// of pipes. With a pipe and a queue: binds the pipe; its completions carry `key`. Null on failure.
HANDLE CreateIoCompletionPort(HANDLE pipe, HANDLE existingPort, ULONG_PTR key, DWORD threads);
// Waits for the next completion; of several threads that wait one is woken for each. TRUE: success.
// FALSE with *overlapped not null: a failed operation, its error the last error (ERROR_BROKEN_PIPE:
// the peer has gone; ERROR_OPERATION_ABORTED: the pipe was closed). FALSE with *overlapped null:
// WAIT_TIMEOUT or a failed wait.
BOOL GetQueuedCompletionStatus(HANDLE port, DWORD* bytes, ULONG_PTR* key, OVERLAPPED** overlapped,
                               DWORD milliseconds);
// Puts a completion of the caller's own into the queue. Any thread.
BOOL PostQueuedCompletionStatus(HANDLE port, DWORD bytes, ULONG_PTR key, OVERLAPPED* overlapped);

// Start a read or write. TRUE when it completed at once (*done bytes), FALSE with ERROR_IO_PENDING
// when started: in both cases the completion comes to the queue, but see
// SetFileCompletionNotificationModes. FALSE with another error: not started, no completion.
BOOL ReadFile(HANDLE pipe, LPVOID buffer, DWORD size, DWORD* done, OVERLAPPED* overlapped);
BOOL WriteFile(HANDLE pipe, LPCVOID buffer, DWORD size, DWORD* done, OVERLAPPED* overlapped);
// With FILE_SKIP_COMPLETION_PORT_ON_SUCCESS: an operation that gave TRUE has no completion any
// more; the caller goes on by itself. The only flag, and it stays.
inline constexpr BYTE FILE_SKIP_COMPLETION_PORT_ON_SUCCESS = 1;
BOOL SetFileCompletionNotificationModes(HANDLE pipe, BYTE flags);
// Writes all on the calling thread, which waits, up to `milliseconds`, where the pipe is full. No
// completion. FALSE: WAIT_TIMEOUT, when a part may have gone out, or the error of a failure. Not
// while a write is outstanding.
BOOL WriteFileWithin(HANDLE pipe, LPCVOID buffer, DWORD size, DWORD milliseconds);
#endif
