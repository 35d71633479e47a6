// Requests of which only matters that the daemon has answered: events, records.
#pragma once

#include <chrono>
#include <cstdint>

#include "lipc/lipc.h"

// Between two attempts while the daemon is busy.
inline constexpr std::chrono::milliseconds kLIPCBusyPause{250};

// Sends one request and waits for its reply, without a limit. A status of LIPCRequest; nothing is
// held by the caller.
int LIPCDeliver(LIPCEndpoint* endpoint, const void* data, std::uint32_t length);
// The same, tried again for as long as the daemon is busy: never LIPC_BUSY.
int LIPCDeliverWhenFree(LIPCEndpoint* endpoint, const void* data, std::uint32_t length);
