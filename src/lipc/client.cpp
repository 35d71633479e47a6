#include <memory>
#include <new>
#include <utility>

#include "lipc/endpoint.h"
#include "lipc/pipe.h"
#include "lipc/wait_end.h"

namespace {

// All connections that the endpoint may open are held. No status of the layer.
constexpr int kAllHeld = 1;

// A connection that was free, or a fresh record whose pipe is still to be opened. Under the
// endpoint's lock. LIPC_OK, kAllHeld, or LIPC_NO_MEMORY.
int TakeConnection(LIPCEndpoint& endpoint, LIPCConnection** connection) {
    auto& inUse = endpoint.connections;
    if (!endpoint.idle.empty()) {
        inUse.splice(inUse.end(), endpoint.idle, endpoint.idle.begin());
        *connection = inUse.back().get();
        return LIPC_OK;
    }
    if (inUse.size() > kMaxBusyConnections) return kAllHeld;
    *connection = LIPCAddConnection(endpoint);
    return *connection == nullptr ? LIPC_NO_MEMORY : LIPC_OK;
}

// Makes a taken connection fit for a request. One whose peer has closed meanwhile, or on which
// something has come that nobody asked for, gets a new pipe. With no lock held.
int Prepare(LIPCEndpoint& endpoint, LIPCConnection& connection) {
    if (connection.channel >= 0) {
        if (PipeStep(connection.channel, 0) == LIPC_TIMED_OUT) return LIPC_OK;
        int stale = -1;
        {
            const std::lock_guard lock(endpoint.lock);
            stale = std::exchange(connection.channel, -1);
        }
        PipeClose(stale);
        connection.broken = false;
        connection.peerClosed = false;
    }
    return LIPCOpenConnection(endpoint, connection);
}

int LIPCAcquire(LIPCEndpoint& endpoint, LIPCConnection** connection) {
    int status = LIPC_OK;
    {
        const std::lock_guard lock(endpoint.lock);
        status = TakeConnection(endpoint, connection);
    }
    if (status == LIPC_OK) return Prepare(endpoint, **connection);
    return status == kAllHeld ? LIPC_NOT_THERE : status;
}

// Waits in the line until the caller is its first and there is a connection to be had.
int WaitForTurn(LIPCEndpoint& endpoint, std::unique_lock<std::mutex>& lock,
                LIPCConnection** connection, std::uint64_t turn, const WaitEnd& end) {
    LIPCWaiter waiter{UniqueHandle(CreateEventA(nullptr, FALSE, FALSE, nullptr))};
    if (!waiter.wake) return LIPC_NO_MEMORY;
    endpoint.waiting.emplace(turn, &waiter);
    int status = kAllHeld;
    for (bool late = false; status == kAllHeld;) {
        if (endpoint.closing) {
            status = LIPC_CLOSING;
        } else if (endpoint.waiting.begin()->second == &waiter) {
            status = TakeConnection(endpoint, connection);
        }
        if (status != kAllHeld) break;
        if (late) {
            status = LIPC_BUSY;
            break;
        }
        lock.unlock();
        late = WaitForSingleObject(waiter.wake.Get(), WaitLimit(end.Left())) == WAIT_TIMEOUT;
        lock.lock();
    }
    endpoint.waiting.erase(turn);
    // There may be more than one, or the one that it was woken for is not taken.
    LIPCWakeNext(endpoint);
    return status;
}

int AcquireInTurn(LIPCEndpoint& endpoint, LIPCConnection** connection, std::uint64_t* turn,
                  const WaitEnd& end) {
    int status = kAllHeld;
    try {
        std::unique_lock lock(endpoint.lock);
        if (*turn == 0) *turn = ++endpoint.lastTurn;
        if (endpoint.waiting.empty()) status = TakeConnection(endpoint, connection);
        if (status == kAllHeld) status = WaitForTurn(endpoint, lock, connection, *turn, end);
    } catch (const std::bad_alloc&) {
        return LIPC_NO_MEMORY;
    }
    return status == LIPC_OK ? Prepare(endpoint, **connection) : status;
}

int LIPCWaitEvent(const LIPCEndpoint& endpoint, LIPCConnection& connection, const void** reply,
                  std::uint32_t* replyLength, std::int32_t timeoutMs) {
    *reply = nullptr;
    *replyLength = 0;
    WaitEnd end(timeoutMs);
    for (;;) {
        int status = LIPCReadMessage(connection);
        if (status == LIPC_OK) break;
        if (status != LIPC_NOT_THERE) return status;
        if (endpoint.closing) return LIPC_FAILED;
        if (connection.broken) return connection.peerClosed ? LIPC_PEER_CLOSED : LIPC_FAILED;
        status = PipeStep(connection.channel, end.Left());
        if (status != LIPC_OK) return status;
        // A request that has only now gone out has the whole time for its reply.
        if (std::exchange(connection.written, false)) end = WaitEnd(timeoutMs);
    }
    connection.awaiting = false;
    const auto length = static_cast<std::uint32_t>(connection.reply.size());
    if (IsNoReply(connection.reply.data(), length)) return LIPC_OK;
    *reply = connection.reply.data();
    *replyLength = length;
    return LIPC_OK;
}

// Gives a held connection back to the pool, or drops it: one whose request has failed, or whose
// reply may still come, would give a later request that reply; more than the pool keeps there
// needn't be.
void GiveBack(LIPCEndpoint& endpoint, LIPCConnection& connection, bool failed) {
    if (!failed && !connection.awaiting && !connection.broken) {
        const std::lock_guard lock(endpoint.lock);
        if (endpoint.idle.size() < kIdleConnections) {
            endpoint.idle.splice(endpoint.idle.end(), endpoint.connections, connection.place);
            LIPCWakeNext(endpoint);
            return;
        }
    }
    LIPCDropConnection(endpoint, connection);
}

struct Block {
    const void* data;
    std::uint32_t length;
};

// Sends the request on the held connection and waits for its reply. *connection is set if the
// caller holds it from here on.
int Ask(LIPCEndpoint& endpoint, LIPCConnection& held, LIPCConnection** connection, Block request,
        const void** reply, std::uint32_t* replyLength, std::int32_t timeoutMs) {
    held.awaiting = true;
    int status = LIPCSend(held, request.data, request.length, timeoutMs);
    held.written = false;
    if (status == LIPC_OK) status = LIPCWaitEvent(endpoint, held, reply, replyLength, timeoutMs);
    if (status == LIPC_OK || status == LIPC_TIMED_OUT) {
        *connection = &held;
    } else {
        GiveBack(endpoint, held, true);
    }
    return status;
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
    if (status == LIPC_OK)
        status = Ask(*endpoint, *held, connection, {data, length}, reply, replyLength, timeoutMs);
    LIPCLeave(*endpoint);
    return status;
}

int LIPCRequestInTurn(LIPCEndpoint* endpoint, LIPCConnection** connection, const void* data,
                      std::uint32_t length, const void** reply, std::uint32_t* replyLength,
                      std::int32_t timeoutMs, std::uint64_t* turn) {
    if (endpoint == nullptr || connection == nullptr || data == nullptr || reply == nullptr ||
        replyLength == nullptr || turn == nullptr)
        return LIPC_BAD_ARGUMENT;
    if (!LIPCEnter(*endpoint)) return LIPC_CLOSING;
    *connection = nullptr;
    const WaitEnd end(timeoutMs);
    LIPCConnection* held = nullptr;
    int status = AcquireInTurn(*endpoint, &held, turn, end);
    if (status == LIPC_OK)
        status = Ask(*endpoint, *held, connection, {data, length}, reply, replyLength, end.Left());
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
    GiveBack(*endpoint, *connection, false);
    LIPCLeave(*endpoint);
    return LIPC_OK;
}
