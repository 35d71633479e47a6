#include <algorithm>
#include <chrono>
#include <list>
#include <memory>
#include <new>

#include "lipc/endpoint.h"
#include "lipc/pipe.h"

namespace {

using Clock = std::chrono::steady_clock;

// All connections that the endpoint may open are held. No status of the layer.
constexpr int kAllHeld = 1;

// What a request works with: a connection of the pool, or a fresh record whose pipe is still to be
// opened; and the broken ones that were met on the way, out of the list already.
struct Claim {
    LIPCConnection* connection = nullptr;
    bool fresh = false;
    std::list<std::unique_ptr<LIPCConnection>> broken;
};

// Under the endpoint's lock. LIPC_OK, kAllHeld, or LIPC_NO_MEMORY.
int TakeConnection(LIPCEndpoint& endpoint, Claim& claim) {
    int busy = 0;
    auto& connections = endpoint.connections;
    for (auto at = connections.begin(); at != connections.end();) {
        const auto each = at++;
        if ((*each)->inUse) {
            ++busy;
        } else if ((*each)->broken) {
            claim.broken.splice(claim.broken.end(), connections, each);
        } else {
            (*each)->inUse = true;
            claim.connection = each->get();
            return LIPC_OK;
        }
    }
    if (busy > kMaxBusyConnections) return kAllHeld;
    claim.fresh = true;
    claim.connection = LIPCAddConnection(endpoint);
    return claim.connection == nullptr ? LIPC_NO_MEMORY : LIPC_OK;
}

// What is left to do with a claim when no lock is held.
int FinishClaim(LIPCEndpoint& endpoint, Claim& claim) {
    for (auto& each : claim.broken) LIPCDiscard(endpoint, std::move(each));
    return claim.fresh ? LIPCOpenConnection(endpoint, claim.connection) : LIPC_OK;
}

int LIPCAcquire(LIPCEndpoint& endpoint, LIPCConnection** connection) {
    Claim claim;
    int status = LIPC_OK;
    {
        const std::lock_guard lock(endpoint.lock);
        status = TakeConnection(endpoint, claim);
    }
    if (status == LIPC_OK) status = FinishClaim(endpoint, claim);
    *connection = claim.connection;
    return status == kAllHeld ? LIPC_NOT_THERE : status;
}

// Waits in the line until the caller is its first and there is a connection to be had.
int WaitForTurn(LIPCEndpoint& endpoint, std::unique_lock<std::recursive_mutex>& lock, Claim& claim,
                std::uint64_t turn, Clock::time_point end) {
    LIPCWaiter waiter;
    endpoint.waiting.emplace(turn, &waiter);
    int status = kAllHeld;
    for (bool late = false; status == kAllHeld;) {
        if (endpoint.closing) {
            status = LIPC_CLOSING;
        } else if (endpoint.waiting.begin()->second == &waiter) {
            status = TakeConnection(endpoint, claim);
        }
        if (status != kAllHeld) break;
        if (late)
            status = LIPC_BUSY;
        else if (end == Clock::time_point::max())
            waiter.wake.wait(lock);
        else
            late = waiter.wake.wait_until(lock, end) == std::cv_status::timeout;
    }
    endpoint.waiting.erase(turn);
    // There may be more than one, or the one that it was woken for is not taken.
    LIPCWakeNext(endpoint);
    return status;
}

int AcquireInTurn(LIPCEndpoint& endpoint, LIPCConnection** connection, std::uint64_t* turn,
                  Clock::time_point end) {
    Claim claim;
    int status = kAllHeld;
    try {
        std::unique_lock lock(endpoint.lock);
        if (*turn == 0) *turn = ++endpoint.lastTurn;
        if (endpoint.waiting.empty()) status = TakeConnection(endpoint, claim);
        if (status == kAllHeld) status = WaitForTurn(endpoint, lock, claim, *turn, end);
    } catch (const std::bad_alloc&) {
        return LIPC_NO_MEMORY;
    }
    if (status == LIPC_OK) status = FinishClaim(endpoint, claim);
    *connection = claim.connection;
    return status;
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

struct Block {
    const void* data;
    std::uint32_t length;
};

// Sends the request on the held connection and waits for its reply. *connection is set if the
// caller holds it from here on.
int Ask(LIPCEndpoint& endpoint, LIPCConnection* held, LIPCConnection** connection, Block request,
        const void** reply, std::uint32_t* replyLength, std::int32_t timeoutMs) {
    {
        const std::lock_guard lock(endpoint.lock);
        held->awaiting = true;
    }
    int status = LIPCSend(*held, request.data, request.length, timeoutMs);
    if (status == LIPC_OK) status = LIPCWaitEvent(endpoint, *held, reply, replyLength, timeoutMs);
    if (status == LIPC_OK || status == LIPC_TIMED_OUT) {
        *connection = held;
    } else {
        GiveBack(endpoint, held, true);
    }
    return status;
}

// Milliseconds, as the operations take them.
std::int32_t Left(Clock::time_point end) {
    if (end == Clock::time_point::max()) return -1;
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now()).count();
    return static_cast<std::int32_t>(std::max<std::int64_t>(left, 0));
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
        status = Ask(*endpoint, held, connection, {data, length}, reply, replyLength, timeoutMs);
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
    const Clock::time_point end = timeoutMs < 0
                                      ? Clock::time_point::max()
                                      : Clock::now() + std::chrono::milliseconds(timeoutMs);
    LIPCConnection* held = nullptr;
    int status = AcquireInTurn(*endpoint, &held, turn, end);
    if (status == LIPC_OK)
        status = Ask(*endpoint, held, connection, {data, length}, reply, replyLength, Left(end));
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
