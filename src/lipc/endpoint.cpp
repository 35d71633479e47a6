#include "lipc/endpoint.h"

#include <cstring>
#include <memory>
#include <new>
#include <utility>

#include "lipc/frame.h"
#include "lipc/pipe.h"

namespace {

constexpr unsigned kServerFlags = kPipeCallback | kPipeTimeout | kPipeListen;

// What a client's channel tells, on its holder's thread; see PipeEvent.
void OnClientEvent(void* context, int event) {
    auto& connection = *static_cast<LIPCConnection*>(context);
    if (event == kPipeWritten) connection.written = true;
    if (event == kPipePeerClosed) connection.peerClosed = true;
    if (event == kPipeFailed || event == kPipePeerClosed) connection.broken = true;
}

}  // namespace

bool IsNoReply(const void* data, std::uint32_t length) {
    return length == sizeof kNoReply && std::memcmp(data, kNoReply, sizeof kNoReply) == 0;
}

bool LIPCEnter(LIPCEndpoint& endpoint) {
    // Raised before the look: a close that has not been seen sees the user.
    ++endpoint.users;
    if (!endpoint.closing) return true;
    --endpoint.users;
    return false;
}

void LIPCLeave(LIPCEndpoint& endpoint) { --endpoint.users; }

LIPCConnection* LIPCAddConnection(LIPCEndpoint& endpoint) {
    try {
        auto made = std::make_unique<LIPCConnection>();
        LIPCConnection* connection = made.get();
        connection->owner = &endpoint;
        connection->inUse = true;
        connection->place =
            endpoint.connections.insert(endpoint.connections.end(), std::move(made));
        return connection;
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

int LIPCOpenConnection(LIPCEndpoint& endpoint, LIPCConnection& connection) {
    // The record is in the list before its first event, which may come before PipeOpen returns.
    const char* name = endpoint.name.c_str();
    void* context = &connection;
    const int channel = endpoint.mode == kClientMode
                            ? PipeOpen(name, kPipeCallback, OnClientEvent, context)
                            : PipeOpen(name, kServerFlags, LIPCOnServerEvent, context, -1,
                                       endpoint.completions.Get());
    {
        const std::lock_guard lock(endpoint.lock);
        connection.channel = channel;
    }
    if (channel < 0) {
        LIPCDropConnection(endpoint, connection);
        return channel;
    }
    // What has come by now, from a client that was waiting already, is served from here on.
    if (endpoint.mode == kServerMode) LIPCLetGo(endpoint, connection, false);
    return LIPC_OK;
}

void LIPCWakeNext(LIPCEndpoint& endpoint) {
    if (!endpoint.waiting.empty()) SetEvent(endpoint.waiting.begin()->second->wake.Get());
}

void LIPCDropConnection(LIPCEndpoint& endpoint, LIPCConnection& connection) {
    LIPCConnections dropped;
    {
        const std::lock_guard lock(endpoint.lock);
        dropped.splice(dropped.end(), endpoint.connections, connection.place);
        LIPCWakeNext(endpoint);
    }
    // With no lock held: closing may deal with completions of other channels.
    if (connection.channel >= 0) PipeClose(connection.channel);
}

int LIPCSend(LIPCConnection& connection, const void* data, std::uint32_t length,
             std::int32_t timeoutMs) {
    PipeSetTimeout(connection.channel, timeoutMs);
    const int result = data == nullptr && length == 0
                           ? PipeSend(connection.channel, kNoReply, sizeof kNoReply)
                           : PipeSend(connection.channel, data, length);
    return result > 0 ? LIPC_OK : result;
}

int LIPCReadMessage(LIPCConnection& connection) {
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
    try {
        auto made = std::make_unique<LIPCEndpoint>();
        made->mode = mode;
        made->name = name;
        *endpoint = made.release();
        return LIPC_OK;
    } catch (const std::bad_alloc&) {
        return LIPC_NO_MEMORY;
    }
}
