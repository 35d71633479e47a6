// The pipe transport: frames over named pipes, by channel numbers below 1024. One worker thread
// serves all connecting channels of the process, another all listening ones; it starts with the
// first channel and ends with the last. Results are the statuses of lipc.h.
#pragma once

#include <cstdint>

#include "platform/sync.h"

// Milliseconds as the layer takes them (below 0: no limit), as the platform's waits take them.
inline DWORD WaitLimit(std::int32_t timeoutMs) {
    return timeoutMs < 0 ? INFINITE : static_cast<DWORD>(timeoutMs);
}

inline constexpr int kPipeTableSize = 1024;

// Flags of PipeOpen.
inline constexpr unsigned kPipeListen = 0x100;    // make a listening channel instead of connecting
inline constexpr unsigned kPipeCallback = 0x400;  // followed by the callback and its context
inline constexpr unsigned kPipeTimeout = 0x1000;  // followed by the time-out in milliseconds (int)

// Events of the callback. It runs on the worker thread (kPipeWritten also on the sender's) with no
// lock of the channel held, and must not close a channel.
enum PipeEvent { kPipeMessage = 0, kPipeWritten = 1, kPipeFailed = 2, kPipePeerClosed = 3 };
using PipeCallback = void (*)(void* context, int event);

// The channel's number, or a negative status. A listening channel with time-out 0 goes on listening
// behind its return.
int PipeOpen(const char* name, unsigned flags, ...);
// Returns when all I/O of the channel has ended; no callback comes after it. Not on the worker
// thread.
int PipeClose(int channel);
// The length when the whole frame has been written, or a negative status.
int PipeSend(int channel, const void* data, std::uint32_t length);
int PipeBytesWaiting(int channel, std::uint32_t* count);
// The number of bytes taken of complete messages, or a negative status.
int PipeReceive(int channel, void* buffer, std::uint32_t size);
// Milliseconds; -1: no limit.
int PipeSetTimeout(int channel, std::int32_t timeoutMs);
// Ends the channel for its sender: a PipeSend that waits returns LIPC_BROKEN, as later ones do.
// What has begun goes on until PipeClose. Any thread but after PipeClose.
int PipeAbandonSend(int channel);
