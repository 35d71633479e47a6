#include <chrono>

#include "lipc/endpoint.h"
#include "lipc/pipe.h"

namespace {

// Takes the next connection that has a request: it is held from here on. Null if there is none.
LIPCConnection* TakeRequest(LIPCEndpoint& endpoint) {
    const std::lock_guard lock(endpoint.lock);
    if (endpoint.queue.empty()) return nullptr;
    LIPCConnection* connection = endpoint.queue.front().value;
    endpoint.queue.pop_front();
    // A peer that sent two requests at once: the second one is the holder's affair, or that of the
    // thread that ends the connection.
    if (connection->inUse) return nullptr;
    connection->queued = false;
    connection->inUse = true;
    return connection;
}

// The one thread's turn to wait for a request.
class Turn {
  public:
    // Waits for it, up to the limit and not beyond the endpoint's end.
    Turn(LIPCEndpoint& endpoint, std::int32_t timeoutMs) : endpoint_(endpoint) {
        std::unique_lock lock(endpoint_.turnMutex);
        const auto free = [this] { return !endpoint_.turnTaken; };
        if (timeoutMs < 0) {
            endpoint_.turn.wait(lock, free);
            taken_ = true;
        } else {
            taken_ = endpoint_.turn.wait_for(lock, std::chrono::milliseconds(timeoutMs), free);
        }
        if (taken_) endpoint_.turnTaken = true;
    }
    Turn(const Turn&) = delete;
    Turn& operator=(const Turn&) = delete;
    ~Turn() {
        if (!taken_) return;
        {
            const std::lock_guard lock(endpoint_.turnMutex);
            endpoint_.turnTaken = false;
        }
        endpoint_.turn.notify_one();
    }
    bool Taken() const { return taken_; }

  private:
    LIPCEndpoint& endpoint_;
    bool taken_ = false;
};

// The next message of any connection, which the caller holds then.
int NextMessage(LIPCEndpoint& endpoint, LIPCConnection** connection, std::int32_t timeoutMs) {
    const Turn turn(endpoint, timeoutMs);
    if (!turn.Taken()) return LIPC_TIMED_OUT;
    const HANDLE handles[] = {endpoint.semaphore.Get(), endpoint.stopEvent.Get()};
    for (;;) {
        const DWORD result = WaitForMultipleObjects(2, handles, FALSE, WaitLimit(timeoutMs));
        if (result == WAIT_TIMEOUT) return LIPC_TIMED_OUT;
        if (result != WAIT_OBJECT_0)
            return result == WAIT_OBJECT_0 + 1 ? LIPC_CLOSING : LIPC_FAILED;
        *connection = TakeRequest(endpoint);
        if (*connection != nullptr) return LIPC_OK;
    }
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
    int status = LIPC_OK;
    LIPCConnection* held = nullptr;
    while ((status = NextMessage(*endpoint, &held, timeoutMs)) == LIPC_OK) {
        if (LIPCReadMessage(*held) == LIPC_OK) break;
        LIPCRecycle(*endpoint, held);
    }
    if (status == LIPC_OK) {
        const auto size = static_cast<std::uint32_t>(held->reply.size());
        const bool empty = IsNoReply(held->reply.data(), size);
        *connection = held;
        *data = empty ? nullptr : held->reply.data();
        *length = empty ? 0 : size;
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
