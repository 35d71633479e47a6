#include "lipc/deliver.h"

#include "platform/task.h"

int LIPCDeliver(LIPCEndpoint* endpoint, const void* data, std::uint32_t length) {
    LIPCConnection* connection = nullptr;
    const void* reply = nullptr;
    std::uint32_t replyLength = 0;
    const int status = LIPCRequest(endpoint, &connection, data, length, &reply, &replyLength, -1);
    if (status == LIPC_OK) LIPCRelease(endpoint, connection);
    return status;
}

int LIPCDeliverWhenFree(LIPCEndpoint* endpoint, const void* data, std::uint32_t length) {
    int status = LIPC_OK;
    while ((status = LIPCDeliver(endpoint, data, length)) == LIPC_BUSY)
        platform::SleepFor(kLIPCBusyPause);
    return status;
}
