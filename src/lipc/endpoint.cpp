#include "lipc/endpoint.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <memory>
#include <new>
#include <thread>
#include <utility>
#include <vector>

#include "lipc/frame.h"
#include "lipc/pipe.h"

namespace {

constexpr std::chrono::milliseconds kLongestPoll{250};
constexpr unsigned kServerFlags = kPipeListen | kPipeCallback | kPipeTimeout;

// Called by a pipe's worker; see PipeEvent.
void LIPCOnPipeEvent(void* context, int event) {
    auto& connection = *static_cast<LIPCConnection*>(context);
    LIPCEndpoint& endpoint = *connection.owner;
    if (!LIPCEnter(endpoint)) return;
    {
        const std::lock_guard lock(endpoint.lock);
        const std::lock_guard inner(connection.lock);
        if (event == kPipeFailed || event == kPipePeerClosed) connection.broken = true;
        if (event == kPipePeerClosed) connection.peerClosed = true;
        const int code = event == kPipeMessage   ? kCodeMessage
                         : event == kPipeWritten ? kCodeSent
                                                 : kCodeLost;
        // A server waits for no sent frame: telling it would only wake a thread.
        if (code == kCodeSent && endpoint.mode == kServerMode) {
        } else if (connection.inUse) {
            connection.queue.push_back({code, nullptr});
            ReleaseSemaphore(connection.semaphore.Get(), 1, nullptr);
        } else {
            endpoint.queue.push_back({code, &connection});
            ReleaseSemaphore(endpoint.semaphore.Get(), 1, nullptr);
        }
    }
    LIPCLeave(endpoint);
}

// Takes the items of one connection out of the endpoint's queue, and their counts off its
// semaphore.
void LIPCQueuePurge(LIPCEndpoint& endpoint, const LIPCConnection* connection) {
    const std::lock_guard lock(endpoint.lock);
    const auto removed = std::erase_if(endpoint.queue, [connection](const LIPCQueueItem& item) {
        return item.value == connection;
    });
    for (std::size_t i = 0; i < removed; ++i) WaitForSingleObject(endpoint.semaphore.Get(), 0);
}

}  // namespace

DWORD WaitLimit(std::int32_t timeoutMs) {
    return timeoutMs < 0 ? INFINITE : static_cast<DWORD>(timeoutMs);
}

bool IsNoReply(const void* data, std::uint32_t length) {
    return length == sizeof kNoReply && std::memcmp(data, kNoReply, sizeof kNoReply) == 0;
}

bool LIPCEnter(LIPCEndpoint& endpoint) {
    const std::lock_guard lock(endpoint.lock);
    if (endpoint.closing) return false;
    ++endpoint.users;
    return true;
}

void LIPCLeave(LIPCEndpoint& endpoint) {
    const std::lock_guard lock(endpoint.lock);
    --endpoint.users;
}

int LIPCNewConnection(LIPCEndpoint& endpoint, LIPCConnection** connection) {
    try {
        auto made = std::make_unique<LIPCConnection>();
        LIPCConnection* raw = made.get();
        raw->owner = &endpoint;
        raw->inUse = endpoint.mode == kClientMode;
        raw->semaphore.Reset(CreateSemaphoreA(nullptr, 0, kQueueLimit, nullptr));
        if (!raw->semaphore) return LIPC_FAILED;
        {
            // In the list before its first event, which may come before PipeOpen returns. Counted
            // where it is added: threads that found nothing free at once don't exceed the limit
            // together.
            const std::lock_guard lock(endpoint.lock);
            const auto busy =
                std::count_if(endpoint.connections.begin(), endpoint.connections.end(),
                              [](const auto& each) { return each->inUse; });
            if (endpoint.mode == kClientMode && busy > kMaxBusyConnections) return LIPC_NOT_THERE;
            endpoint.connections.push_back(std::move(made));
        }
        const int channel = endpoint.mode == kClientMode
                                ? PipeOpen(endpoint.name.c_str(), kPipeCallback, LIPCOnPipeEvent,
                                           static_cast<void*>(raw))
                                : PipeOpen(endpoint.name.c_str(), kServerFlags, LIPCOnPipeEvent,
                                           static_cast<void*>(raw), 0);
        {
            const std::lock_guard lock(endpoint.lock);
            raw->channel = channel;
        }
        if (channel < 0) {
            LIPCDropConnection(endpoint, raw);
            return channel;
        }
        if (endpoint.mode == kServerMode) PipeSetTimeout(channel, -1);
        if (connection != nullptr) *connection = raw;
        return LIPC_OK;
    } catch (const std::bad_alloc&) {
        return LIPC_NO_MEMORY;
    }
}

void LIPCDropConnection(LIPCEndpoint& endpoint, LIPCConnection* connection) {
    std::unique_ptr<LIPCConnection> dropped;
    {
        const std::lock_guard lock(endpoint.lock);
        const auto found =
            std::find_if(endpoint.connections.begin(), endpoint.connections.end(),
                         [connection](const auto& each) { return each.get() == connection; });
        if (found == endpoint.connections.end()) return;
        dropped = std::move(*found);
        endpoint.connections.erase(found);
    }
    // With no lock held: closing waits for the worker, which may wait for these locks in the
    // callback.
    if (dropped->channel >= 0) PipeClose(dropped->channel);
    LIPCQueuePurge(endpoint, connection);
}

void LIPCRecycle(LIPCEndpoint& endpoint, LIPCConnection* connection) {
    bool broken = false;
    {
        const std::lock_guard lock(endpoint.lock);
        broken = connection->broken;
        if (!broken) {
            const std::lock_guard inner(connection->lock);
            const auto found =
                std::find_if(endpoint.connections.begin(), endpoint.connections.end(),
                             [connection](const auto& each) { return each.get() == connection; });
            endpoint.connections.splice(endpoint.connections.end(), endpoint.connections, found);
            for (; !connection->queue.empty(); connection->queue.pop_front()) {
                WaitForSingleObject(connection->semaphore.Get(), 0);
                // A client's endpoint has no reader.
                if (endpoint.mode == kClientMode) continue;
                endpoint.queue.push_back({connection->queue.front().code, connection});
                ReleaseSemaphore(endpoint.semaphore.Get(), 1, nullptr);
            }
            connection->inUse = false;
        }
    }
    if (!broken) return;
    LIPCDropConnection(endpoint, connection);
    if (endpoint.mode == kServerMode) LIPCNewConnection(endpoint, nullptr);
}

int LIPCSend(LIPCConnection& connection, const void* data, std::uint32_t length,
             std::int32_t timeoutMs) {
    PipeSetTimeout(connection.channel, timeoutMs);
    const int result = data == nullptr && length == 0
                           ? PipeSend(connection.channel, kNoReply, sizeof kNoReply)
                           : PipeSend(connection.channel, data, length);
    PipeSetTimeout(connection.channel, -1);
    return result > 0 ? LIPC_OK : result;
}

int LIPCReadMessage(LIPCConnection& connection) {
    const std::lock_guard lock(connection.lock);
    std::uint32_t waiting = 0;
    PipeBytesWaiting(connection.channel, &waiting);
    if (waiting == 0) return LIPC_NOT_THERE;
    try {
        connection.reply.resize(waiting);
    } catch (const std::bad_alloc&) {
        return LIPC_NO_MEMORY;
    }
    const int count = PipeReceive(connection.channel, connection.reply.data(), waiting);
    connection.reply.resize(count > 0 ? static_cast<std::size_t>(count) : 0);
    return count > 0 ? LIPC_OK : count;
}

int LIPCCreateEndpoint(LIPCEndpoint** endpoint, const char* name, EndpointMode mode) {
    if (endpoint == nullptr || name == nullptr) return LIPC_BAD_ARGUMENT;
    *endpoint = nullptr;
    std::unique_ptr<LIPCEndpoint> made(new (std::nothrow) LIPCEndpoint);
    if (made == nullptr) return LIPC_NO_MEMORY;
    made->mode = mode;
    made->name = name;
    made->semaphore.Reset(CreateSemaphoreA(nullptr, 0, kQueueLimit, nullptr));
    made->stopEvent.Reset(CreateEventA(nullptr, TRUE, FALSE, nullptr));
    if (!made->semaphore || !made->stopEvent) return LIPC_FAILED;
    LIPCEndpoint* raw = made.release();
    for (int i = 0; mode == kServerMode && i < kServerConnections; ++i) {
        if (LIPCNewConnection(*raw, nullptr) == LIPC_OK) continue;
        LIPCClose(raw);
        return LIPC_FAILED;
    }
    *endpoint = raw;
    return LIPC_OK;
}

namespace {

// Drops all connections. One that a caller still holds keeps its record and its reply, which the
// caller may be reading; only its pipe goes.
void CloseConnections(LIPCEndpoint& endpoint) {
    for (;;) {
        LIPCConnection* next = nullptr;
        int channel = -1;
        bool held = false;
        {
            const std::lock_guard lock(endpoint.lock);
            for (const auto& each : endpoint.connections) {
                held = endpoint.mode == kClientMode && each->inUse;
                if (held && each->channel < 0) continue;
                next = each.get();
                channel = std::exchange(next->channel, held ? -1 : next->channel);
                break;
            }
        }
        if (next == nullptr) return;
        if (held) {
            PipeClose(channel);
        } else {
            LIPCDropConnection(endpoint, next);
        }
    }
}

// A closed endpoint's record stays to the end of the process, without its pipes: a thread that was
// between two calls when it was closed comes to a record that says so.
void Bury(LIPCEndpoint* endpoint) {
    static std::mutex& mutex = *new std::mutex;
    static auto& graves = *new std::vector<std::unique_ptr<LIPCEndpoint>>;
    {
        // The last one to leave may still be inside the lock.
        const std::lock_guard lock(endpoint->lock);
        endpoint->queue.clear();
    }
    const std::lock_guard lock(mutex);
    graves.emplace_back(endpoint);
}

}  // namespace

int LIPCClose(LIPCEndpoint* endpoint) {
    if (endpoint == nullptr) return LIPC_BAD_ARGUMENT;
    {
        const std::lock_guard lock(endpoint->lock);
        endpoint->closing = true;
    }
    SetEvent(endpoint->stopEvent.Get());
    const auto waitForUsers = [endpoint] {
        for (auto pause = std::chrono::milliseconds(1); endpoint->users > 0;
             pause = std::min(pause * 2, kLongestPoll))
            std::this_thread::sleep_for(pause);
    };
    waitForUsers();
    CloseConnections(*endpoint);
    waitForUsers();
    Bury(endpoint);
    return LIPC_OK;
}
