// A serving thread.
#pragma once

#include <cstdint>

#include "lipc/lipc.h"

// Takes requests until the endpoint closes, and leaves each to `answer`, which replies.
template <class Answer>
void ServeUntilClosed(LIPCEndpoint* server, const Answer& answer) {
    for (;;) {
        LIPCConnection* connection = nullptr;
        const void* data = nullptr;
        std::uint32_t length = 0;
        const int status = LIPCReceive(server, &connection, &data, &length, -1);
        if (status == LIPC_CLOSING) return;
        if (status == LIPC_OK) answer(connection, data, length);
    }
}
