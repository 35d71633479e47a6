#include "lipc/endpoint.h"

namespace {

// Takes the next event of a connection that nobody holds. For a message the connection is held from
// here on.
LIPCQueueItem TakeItem(LIPCEndpoint& endpoint) {
    const std::lock_guard lock(endpoint.lock);
    if (endpoint.queue.empty()) return {0, nullptr};
    const LIPCQueueItem item = endpoint.queue.front();
    endpoint.queue.pop_front();
    if (item.value != nullptr) {
        // Two events of one connection may be met by two threads: the second one is the holder's
        // affair.
        if (item.value->inUse) return {0, nullptr};
        item.value->inUse = item.code == kCodeMessage || item.code == kCodeLost;
    }
    return item;
}

}  // namespace

int LIPCOpenServer(LIPCEndpoint** endpoint, const char* name) {
    return LIPCCreateEndpoint(endpoint, name, kServerMode);
}

int LIPCReceive(LIPCEndpoint* endpoint, LIPCConnection** connection, const void** data,
                std::uint32_t* length, std::int32_t timeoutMs) {
    if (endpoint == nullptr || connection == nullptr || data == nullptr || length == nullptr)
        return LIPC_BAD_ARGUMENT;
    if (!LIPCEnter(*endpoint)) return LIPC_CLOSING;
    const HANDLE handles[] = {endpoint->semaphore.Get(), endpoint->stopEvent.Get()};
    int status = LIPC_FAILED;
    for (;;) {
        const DWORD result = WaitForMultipleObjects(2, handles, FALSE, WaitLimit(timeoutMs));
        if (result != WAIT_OBJECT_0) {
            status = result == WAIT_TIMEOUT        ? LIPC_TIMED_OUT
                     : result == WAIT_OBJECT_0 + 1 ? LIPC_CLOSING
                                                   : LIPC_FAILED;
            break;
        }
        const LIPCQueueItem item = TakeItem(*endpoint);
        if (item.value == nullptr) continue;
        if (item.code == kCodeLost) {
            LIPCRecycle(*endpoint, item.value);
            continue;
        }
        if (item.code != kCodeMessage) continue;
        if (LIPCReadMessage(*item.value) != LIPC_OK) {
            LIPCRecycle(*endpoint, item.value);
            continue;
        }
        const auto size = static_cast<std::uint32_t>(item.value->reply.size());
        const bool empty = IsNoReply(item.value->reply.data(), size);
        *connection = item.value;
        *data = empty ? nullptr : item.value->reply.data();
        *length = empty ? 0 : size;
        status = LIPC_OK;
        break;
    }
    LIPCLeave(*endpoint);
    return status;
}

int LIPCReply(LIPCEndpoint* endpoint, LIPCConnection* connection, const void* data,
              std::uint32_t length) {
    if (endpoint == nullptr || connection == nullptr) return LIPC_BAD_ARGUMENT;
    if (!LIPCEnter(*endpoint)) return LIPC_CLOSING;
    // A client that takes no bytes must not hold a thread of the server for good.
    constexpr std::int32_t kReplyLimitMs = 30000;
    const int status = LIPCSend(*connection, data, length, kReplyLimitMs);
    std::vector<char>().swap(connection->reply);
    if (status != LIPC_OK) {
        const std::lock_guard lock(endpoint->lock);
        connection->broken = true;
    }
    LIPCRecycle(*endpoint, connection);
    LIPCLeave(*endpoint);
    return status;
}
