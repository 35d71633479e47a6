// The pipe transport: frames over named pipes, by channel numbers below 1024. It has no threads:
// the completions of a channel come to a queue, and whoever waits for them takes them there and
// deals with them. A connecting channel has a queue of its own, for its holder; listening ones
// share their server's, for any number of threads. Results are the statuses of lipc.h.
#pragma once

#include <cstdint>

#include "platform/sync.h"

// Milliseconds as the layer takes them (below 0: no limit), as the platform's waits take them.
inline DWORD WaitLimit(std::int32_t timeoutMs) {
    return timeoutMs < 0 ? INFINITE : static_cast<DWORD>(timeoutMs);
}

inline constexpr int kPipeTableSize = 1024;

// Flags of PipeOpen, and what follows them, in this order.
inline constexpr unsigned kPipeCallback = 0x400;  // the callback and its context
inline constexpr unsigned kPipeTimeout = 0x1000;  // the time-out in milliseconds (int)
// Make a listening channel instead of connecting. The server's queue, which outlives the channel.
inline constexpr unsigned kPipeListen = 0x100;

// Events of the callback. It runs on the thread that takes the completion (kPipeWritten also on the
// sender's) with no lock of the channel held, and must not close a channel. kPipeConnected comes
// for listening channels only.
enum PipeEvent {
    kPipeMessage = 0,
    kPipeWritten = 1,
    kPipeFailed = 2,
    kPipePeerClosed = 3,
    kPipeConnected = 4
};
using PipeCallback = void (*)(void* context, int event);

// Takes the name for a server, whose channels come and go: clients that wait in its backlog stay
// while none of them listens. Null if another process has it.
HANDLE PipeServeName(const char* name);

// The channel's number, or a negative status. A listening channel goes on listening behind its
// return.
int PipeOpen(const char* name, unsigned flags, ...);
// Takes completions of the channel's queue until all its I/O has ended; no callback comes after it.
int PipeClose(int channel);
// The length when the whole frame has been written, or a negative status. A connecting channel's
// frame that is late goes on being written whenever its queue is stepped; a listening channel is
// then good for no other.
int PipeSend(int channel, const void* data, std::uint32_t length);
int PipeBytesWaiting(int channel, std::uint32_t* count);
// The number of bytes taken of complete messages, or a negative status.
int PipeReceive(int channel, void* buffer, std::uint32_t size);
// Milliseconds; -1: no limit.
int PipeSetTimeout(int channel, std::int32_t timeoutMs);
// Cuts the channel's connection. Whoever waits on its queue is woken; a PipeSend that waits returns
// LIPC_BROKEN, as later ones do. Any thread but after PipeClose.
int PipeAbandon(int channel);

// Waits for one completion, up to the limit, and deals with it: LIPC_OK, LIPC_TIMED_OUT or
// LIPC_FAILED.
int PipeStep(int channel, std::int32_t timeoutMs);
int PipeStepQueue(HANDLE queue, std::int32_t timeoutMs);
// Makes one PipeStepQueue return LIPC_OK, one that waits or the next one.
void PipeWake(HANDLE queue);
