#include "lipc/endpoint.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <memory>
#include <new>
#include <system_error>
#include <thread>
#include <utility>

#include "lipc/frame.h"
#include "lipc/pipe.h"

namespace {

constexpr unsigned kServerFlags = kPipeListen | kPipeCallback | kPipeTimeout;

// For the connection's holder, or the endpoint. Under both locks.
void QueueEvent(LIPCEndpoint& endpoint, LIPCConnection& connection, int code) {
    if (connection.inUse) {
        connection.queue.push_back({code, nullptr});
        ReleaseSemaphore(connection.semaphore.Get(), 1, nullptr);
    } else {
        endpoint.queue.push_back({code, &connection});
        ReleaseSemaphore(endpoint.semaphore.Get(), 1, nullptr);
    }
}

// The event of a server's connection. Under both locks. Whoever holds a connection, or takes its
// request out of the queue, sees by itself that it is lost.
void QueueForServer(LIPCEndpoint& endpoint, LIPCConnection& connection, int code) {
    if (code == kCodeMessage) {
        if (!connection.met) {
            connection.met = true;
            ++endpoint.met;
            endpoint.keep.notify_one();
        }
        connection.queued = !connection.inUse;
        QueueEvent(endpoint, connection, code);
    } else if (code == kCodeLost && !connection.inUse && !connection.queued) {
        connection.inUse = true;
        endpoint.lost.push_back(&connection);
        endpoint.keep.notify_one();
    }
}

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
        if (endpoint.mode == kServerMode) {
            QueueForServer(endpoint, connection, code);
        } else {
            QueueEvent(endpoint, connection, code);
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

auto FindConnection(LIPCEndpoint& endpoint, const LIPCConnection* connection) {
    return std::find_if(endpoint.connections.begin(), endpoint.connections.end(),
                        [connection](const auto& each) { return each.get() == connection; });
}

// Whether the pool has all the free connections that it keeps. Under the endpoint's lock.
bool IsSurplus(const LIPCEndpoint& endpoint) {
    return endpoint.mode == kClientMode &&
           std::count_if(endpoint.connections.begin(), endpoint.connections.end(),
                         [](const auto& each) { return !each->inUse; }) >= kIdleConnections;
}

// Whether a server has too few connections left for new clients. Under the endpoint's lock.
bool NeedsListener(const LIPCEndpoint& endpoint) {
    const std::size_t count = endpoint.connections.size();
    return count < kServerConnections ||
           (count < kServerLimit && count - endpoint.met < kServerSpare);
}

// Puts a held connection at the end of the pool. Under the endpoint's lock.
void Free(LIPCEndpoint& endpoint, LIPCConnection& connection) {
    const std::lock_guard inner(connection.lock);
    endpoint.connections.splice(endpoint.connections.end(), endpoint.connections,
                                FindConnection(endpoint, &connection));
    for (; !connection.queue.empty(); connection.queue.pop_front()) {
        WaitForSingleObject(connection.semaphore.Get(), 0);
        // A client's endpoint has no reader.
        if (endpoint.mode == kClientMode) continue;
        connection.queued = true;
        endpoint.queue.push_back({connection.queue.front().code, &connection});
        ReleaseSemaphore(endpoint.semaphore.Get(), 1, nullptr);
    }
    connection.inUse = false;
}

}  // namespace

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

LIPCConnection* LIPCAddConnection(LIPCEndpoint& endpoint) {
    try {
        auto made = std::make_unique<LIPCConnection>();
        made->owner = &endpoint;
        made->inUse = true;
        made->semaphore.Reset(CreateSemaphoreA(nullptr, 0, kQueueLimit, nullptr));
        if (!made->semaphore) return nullptr;
        endpoint.connections.push_back(std::move(made));
        return endpoint.connections.back().get();
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

int LIPCOpenConnection(LIPCEndpoint& endpoint, LIPCConnection* connection) {
    // The record is in the list before its first event, which may come before PipeOpen returns.
    const char* name = endpoint.name.c_str();
    const int channel =
        endpoint.mode == kClientMode
            ? PipeOpen(name, kPipeCallback, LIPCOnPipeEvent, static_cast<void*>(connection))
            : PipeOpen(name, kServerFlags, LIPCOnPipeEvent, static_cast<void*>(connection), 0);
    {
        const std::lock_guard lock(endpoint.lock);
        connection->channel = channel;
    }
    if (channel < 0) {
        LIPCDropConnection(endpoint, connection);
        return channel;
    }
    if (endpoint.mode == kServerMode) {
        PipeSetTimeout(channel, -1);
        // What has come by now, from a client that was waiting already, is served from here on.
        LIPCRecycle(endpoint, connection);
    }
    return LIPC_OK;
}

int LIPCListen(LIPCEndpoint& endpoint) {
    LIPCConnection* made = nullptr;
    {
        const std::lock_guard lock(endpoint.lock);
        made = LIPCAddConnection(endpoint);
    }
    return made == nullptr ? LIPC_NO_MEMORY : LIPCOpenConnection(endpoint, made);
}

void LIPCKeepListening(LIPCEndpoint& endpoint) {
    constexpr std::chrono::seconds kPauseAfterFailure{1};
    std::unique_lock lock(endpoint.lock);
    while (!endpoint.closing) {
        if (NeedsListener(endpoint)) {
            lock.unlock();
            const int status = LIPCListen(endpoint);
            lock.lock();
            if (status != LIPC_OK) endpoint.keep.wait_for(lock, kPauseAfterFailure);
        } else if (!endpoint.lost.empty()) {
            LIPCConnection* lost = endpoint.lost.front();
            endpoint.lost.pop_front();
            lock.unlock();
            LIPCDropConnection(endpoint, lost);
            lock.lock();
        } else {
            endpoint.keep.wait(lock);
        }
    }
}

void LIPCWakeNext(LIPCEndpoint& endpoint) {
    if (!endpoint.waiting.empty()) endpoint.waiting.begin()->second->wake.notify_one();
}

void LIPCDropConnection(LIPCEndpoint& endpoint, LIPCConnection* connection) {
    std::unique_ptr<LIPCConnection> dropped;
    {
        const std::lock_guard lock(endpoint.lock);
        const auto found = FindConnection(endpoint, connection);
        if (found == endpoint.connections.end()) return;
        dropped = std::move(*found);
        endpoint.connections.erase(found);
        if (dropped->met) --endpoint.met;
        LIPCWakeNext(endpoint);
    }
    LIPCDiscard(endpoint, std::move(dropped));
}

void LIPCDiscard(LIPCEndpoint& endpoint, std::unique_ptr<LIPCConnection> dropped) {
    // With no lock held: closing waits for the worker, which may wait for these locks in the
    // callback.
    if (dropped->channel >= 0) PipeClose(dropped->channel);
    LIPCQueuePurge(endpoint, dropped.get());
}

void LIPCRecycle(LIPCEndpoint& endpoint, LIPCConnection* connection) {
    {
        const std::lock_guard lock(endpoint.lock);
        if (connection->broken && endpoint.mode == kServerMode) {
            endpoint.lost.push_back(connection);
            endpoint.keep.notify_one();
            return;
        }
        if (!connection->broken && !IsSurplus(endpoint)) {
            Free(endpoint, *connection);
            LIPCWakeNext(endpoint);
            return;
        }
    }
    LIPCDropConnection(endpoint, connection);
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
    for (std::size_t i = 0; mode == kServerMode && i < kServerConnections; ++i) {
        if (LIPCListen(*raw) == LIPC_OK) continue;
        LIPCClose(raw);
        return LIPC_FAILED;
    }
    if (mode == kServerMode) {
        try {
            raw->keeper = std::thread([raw] { LIPCKeepListening(*raw); });
        } catch (const std::system_error&) {
            LIPCClose(raw);
            return LIPC_FAILED;
        }
    }
    *endpoint = raw;
    return LIPC_OK;
}
