#include "lipc/endpoint.h"
#include "lipc/pipe.h"
#include "lipc/wait_end.h"
#include "platform/pipe.h"

namespace {

// Where no further connection can be made, until the next attempt.
constexpr std::int32_t kListenPauseMs = 1000;

// What there is to do for a thread that serves: one of them, or nothing.
struct Work {
    LIPCConnection* request = nullptr;  // the caller's from here on
    LIPCConnection* lost = nullptr;     // to be dropped
    LIPCConnection* fresh = nullptr;    // to be opened, for a further client
    bool deaf = false;                  // no further client can come
};

Work TakeWork(LIPCEndpoint& endpoint, bool mayListen) {
    Work work;
    const std::lock_guard lock(endpoint.lock);
    work.deaf = endpoint.listening == 0 && endpoint.connections.size() < kServerLimit;
    if (work.deaf && mayListen) work.fresh = LIPCAddConnection(endpoint);
    if (work.fresh != nullptr) {
        ++endpoint.listening;
    } else if (!endpoint.lost.empty()) {
        work.lost = endpoint.lost.front();
        endpoint.lost.pop_front();
    } else if (!endpoint.requests.empty()) {
        work.request = endpoint.requests.front();
        endpoint.requests.pop_front();
        work.request->queued = false;
        work.request->inUse = true;
    }
    return work;
}

// A connection that nobody has: what has come of it is for whoever comes first. Under the
// endpoint's lock.
void QueueConnection(LIPCEndpoint& endpoint, LIPCConnection& connection, bool request) {
    if (connection.queued) return;  // whoever takes its request sees by itself that it is lost
    if (request) {
        connection.queued = true;
        endpoint.requests.push_back(&connection);
    } else if (connection.broken) {
        connection.inUse = true;
        endpoint.lost.push_back(&connection);
    }
}

// Waits for a client in a fresh connection. False if that can't be had.
bool Listen(LIPCEndpoint& endpoint, LIPCConnection& fresh) {
    if (LIPCOpenConnection(endpoint, fresh) == LIPC_OK) return true;
    const std::lock_guard lock(endpoint.lock);
    --endpoint.listening;
    return false;
}

// The next message of any connection, which the caller holds then.
int NextMessage(LIPCEndpoint& endpoint, LIPCConnection** connection, const WaitEnd& end) {
    bool listens = true;
    while (!endpoint.closing) {
        const Work work = TakeWork(endpoint, listens);
        if (work.request != nullptr) {
            *connection = work.request;
            return LIPC_OK;
        }
        if (work.lost != nullptr) {
            LIPCDropConnection(endpoint, *work.lost);
        } else if (work.fresh != nullptr) {
            listens = Listen(endpoint, *work.fresh);
        } else {
            const std::int32_t left = end.Left();
            const bool pause = work.deaf && (left < 0 || left > kListenPauseMs);
            const int status =
                PipeStepQueue(endpoint.completions.Get(), pause ? kListenPauseMs : left);
            if (status != LIPC_OK && !(pause && status == LIPC_TIMED_OUT)) return status;
            listens = true;
        }
    }
    return LIPC_CLOSING;
}

}  // namespace

void LIPCOnServerEvent(void* context, int event) {
    if (event == kPipeWritten) return;
    auto& connection = *static_cast<LIPCConnection*>(context);
    LIPCEndpoint& endpoint = *connection.owner;
    const std::lock_guard lock(endpoint.lock);
    if (event == kPipeFailed || event == kPipePeerClosed) connection.broken = true;
    if (!connection.met) --endpoint.listening;
    connection.met = true;
    // Whoever holds it sees to it when letting go.
    if (!connection.inUse) QueueConnection(endpoint, connection, event == kPipeMessage);
}

void LIPCLetGo(LIPCEndpoint& endpoint, LIPCConnection& connection, bool failed) {
    {
        const std::lock_guard lock(endpoint.lock);
        connection.broken = connection.broken || failed;
        std::uint32_t waiting = 0;
        if (!connection.broken) PipeBytesWaiting(connection.channel, &waiting);
        connection.inUse = false;
        QueueConnection(endpoint, connection, waiting > 0);
        if (!connection.inUse && !connection.queued) return;
    }
    // For one who waits; the caller may be off to something else.
    PipeWake(endpoint.completions.Get());
}

int LIPCOpenServer(LIPCEndpoint** endpoint, const char* name) {
    if (const int status = LIPCCreateEndpoint(endpoint, name, kServerMode); status != LIPC_OK)
        return status;
    LIPCEndpoint& made = **endpoint;
    made.completions.Reset(CreateIoCompletionPort(INVALID_HANDLE_VALUE, nullptr, 0, 0));
    made.served.Reset(PipeServeName(name));
    const Work first = TakeWork(made, true);
    if (made.completions && made.served && first.fresh != nullptr && Listen(made, *first.fresh))
        return LIPC_OK;
    LIPCClose(*endpoint);
    *endpoint = nullptr;
    return LIPC_FAILED;
}

int LIPCReceive(LIPCEndpoint* endpoint, LIPCConnection** connection, const void** data,
                std::uint32_t* length, std::int32_t timeoutMs) {
    if (endpoint == nullptr || connection == nullptr || data == nullptr || length == nullptr)
        return LIPC_BAD_ARGUMENT;
    if (!LIPCEnter(*endpoint)) return LIPC_CLOSING;
    const WaitEnd end(timeoutMs);
    int status = LIPC_OK;
    LIPCConnection* held = nullptr;
    while ((status = NextMessage(*endpoint, &held, end)) == LIPC_OK) {
        const int read = LIPCReadMessage(*held);
        if (read == LIPC_OK) break;
        LIPCLetGo(*endpoint, *held, read != LIPC_NOT_THERE);
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
    LIPCLetGo(*endpoint, *connection, status != LIPC_OK);
    LIPCLeave(*endpoint);
    return status;
}
