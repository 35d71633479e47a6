#include "lipc/endpoint.h"

namespace {

int LIPCAcquire(LIPCEndpoint& endpoint, LIPCConnection** connection) {
    int busy = 0;
    for (;;) {
        LIPCConnection* broken = nullptr;
        {
            const std::lock_guard lock(endpoint.lock);
            for (const auto& each : endpoint.connections) {
                if (each->inUse) {
                    ++busy;
                    continue;
                }
                each->inUse = true;
                if (!each->broken) {
                    *connection = each.get();
                    return LIPC_OK;
                }
                broken = each.get();
                break;
            }
            if (broken == nullptr && busy > kMaxBusyConnections) return LIPC_NOT_THERE;
        }
        if (broken == nullptr) return LIPCNewConnection(endpoint, connection);
        LIPCRecycle(endpoint, broken);
        busy = 0;  // the walk begins anew
    }
}

// Takes the first item of the connection's queue; code 0 if there is none.
int PopCode(LIPCConnection& connection) {
    const std::lock_guard lock(connection.lock);
    if (connection.queue.empty()) return 0;
    const int code = connection.queue.front().code;
    connection.queue.pop_front();
    return code;
}

int LIPCWaitEvent(LIPCEndpoint& endpoint, LIPCConnection& connection, const void** reply,
                  std::uint32_t* replyLength, std::int32_t timeoutMs) {
    *reply = nullptr;
    *replyLength = 0;
    const HANDLE handles[] = {connection.semaphore.Get(), endpoint.stopEvent.Get()};
    for (;;) {
        const DWORD result = WaitForMultipleObjects(2, handles, FALSE, WaitLimit(timeoutMs));
        if (result == WAIT_TIMEOUT) return LIPC_TIMED_OUT;
        if (result != WAIT_OBJECT_0) return LIPC_FAILED;  // also an endpoint that is being closed
        switch (PopCode(connection)) {
            case kCodeMessage: {
                const int status = LIPCReadMessage(connection);
                if (status != LIPC_OK) return status;
                {
                    const std::lock_guard lock(endpoint.lock);
                    connection.awaiting = false;
                }
                const auto length = static_cast<std::uint32_t>(connection.reply.size());
                if (IsNoReply(connection.reply.data(), length)) return LIPC_OK;
                *reply = connection.reply.data();
                *replyLength = length;
                return LIPC_OK;
            }
            case kCodeSent:
                continue;
            case kCodeLost: {
                const std::lock_guard lock(endpoint.lock);
                connection.broken = true;
                return connection.peerClosed ? LIPC_PEER_CLOSED : LIPC_FAILED;
            }
            case kCodeShutdown:
                return LIPC_CLOSING;
            default:
                return LIPC_FAILED;
        }
    }
}

// A connection whose request has failed, or whose reply may still come, would give a later request
// that reply.
void GiveBack(LIPCEndpoint& endpoint, LIPCConnection* connection, bool failed) {
    {
        const std::lock_guard lock(endpoint.lock);
        if (failed || connection->awaiting) connection->broken = true;
    }
    LIPCRecycle(endpoint, connection);
}

}  // namespace

int LIPCOpenClient(LIPCEndpoint** endpoint, const char* name) {
    return LIPCCreateEndpoint(endpoint, name, kClientMode);
}

int LIPCRequest(LIPCEndpoint* endpoint, LIPCConnection** connection, const void* data,
                std::uint32_t length, const void** reply, std::uint32_t* replyLength,
                std::int32_t timeoutMs) {
    if (endpoint == nullptr || connection == nullptr || data == nullptr || reply == nullptr ||
        replyLength == nullptr)
        return LIPC_BAD_ARGUMENT;
    if (!LIPCEnter(*endpoint)) return LIPC_CLOSING;
    *connection = nullptr;
    LIPCConnection* held = nullptr;
    int status = LIPCAcquire(*endpoint, &held);
    if (status == LIPC_OK) {
        {
            const std::lock_guard lock(endpoint->lock);
            held->awaiting = true;
        }
        status = LIPCSend(*held, data, length, timeoutMs);
        if (status == LIPC_OK)
            status = LIPCWaitEvent(*endpoint, *held, reply, replyLength, timeoutMs);
        if (status == LIPC_OK || status == LIPC_TIMED_OUT) {
            *connection = held;
        } else {
            GiveBack(*endpoint, held, true);
        }
    }
    LIPCLeave(*endpoint);
    return status;
}

int LIPCWaitReply(LIPCEndpoint* endpoint, LIPCConnection* connection, const void** reply,
                  std::uint32_t* replyLength, std::int32_t timeoutMs) {
    if (endpoint == nullptr || connection == nullptr || reply == nullptr || replyLength == nullptr)
        return LIPC_BAD_ARGUMENT;
    if (!LIPCEnter(*endpoint)) return LIPC_CLOSING;
    const int status = LIPCWaitEvent(*endpoint, *connection, reply, replyLength, timeoutMs);
    LIPCLeave(*endpoint);
    return status;
}

int LIPCRelease(LIPCEndpoint* endpoint, LIPCConnection* connection) {
    if (endpoint == nullptr || connection == nullptr) return LIPC_BAD_ARGUMENT;
    if (!LIPCEnter(*endpoint)) return LIPC_CLOSING;
    std::vector<char>().swap(connection->reply);
    GiveBack(*endpoint, connection, false);
    LIPCLeave(*endpoint);
    return LIPC_OK;
}
