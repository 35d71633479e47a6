// Inside lipc/: the records behind endpoints and connections. Locks are taken in the order
// endpoint, connection, channel.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "lipc/lipc.h"
#include "platform/sync.h"

enum QueueCode { kCodeMessage = 1, kCodeSent = 2, kCodeLost = 3, kCodeShutdown = 4 };
enum EndpointMode { kServerMode = 0, kClientMode = 1 };

inline constexpr int kServerConnections = 256;
inline constexpr int kMaxBusyConnections = 256;
inline constexpr LONG kQueueLimit = 4096;

struct LIPCQueueItem {
    int code;
    LIPCConnection* value;  // in an endpoint's queue: the connection concerned
};

struct LIPCConnection {
    bool inUse = false;  // guarded by the endpoint's lock, as the three below
    bool broken = false;
    bool peerClosed = false;
    bool awaiting = false;  // a request has gone out and its reply has not been taken
    int channel = -1;
    std::vector<char> reply;
    LIPCEndpoint* owner = nullptr;
    std::deque<LIPCQueueItem> queue;  // guarded by lock
    UniqueHandle semaphore;           // counts queue
    std::recursive_mutex lock;        // guards queue and the read of a reply
};

struct LIPCEndpoint {
    EndpointMode mode = kClientMode;
    std::string name;
    bool closing = false;    // guarded by lock
    UniqueHandle semaphore;  // counts queue
    UniqueHandle stopEvent;
    std::deque<LIPCQueueItem> queue;  // guarded by lock: events of connections that nobody holds
    std::recursive_mutex lock;
    std::list<std::unique_ptr<LIPCConnection>> connections;  // guarded by lock
    std::atomic<int> users{0};  // calls and callbacks inside the endpoint; raised under lock
    // Server: one thread at a time waits for the next request, the others for their turn. Were all
    // to wait for the request, each would wake them all.
    std::mutex turnMutex;
    std::condition_variable turn;
    bool turnTaken = false;  // guarded by turnMutex
};

int LIPCCreateEndpoint(LIPCEndpoint** endpoint, const char* name, EndpointMode mode);
// A new connection, held by the caller (client) or listening (server).
int LIPCNewConnection(LIPCEndpoint& endpoint, LIPCConnection** connection);
void LIPCDropConnection(LIPCEndpoint& endpoint, LIPCConnection* connection);
// Gives a held connection back to the pool; a broken one is dropped, and replaced in server mode.
void LIPCRecycle(LIPCEndpoint& endpoint, LIPCConnection* connection);
int LIPCSend(LIPCConnection& connection, const void* data, std::uint32_t length,
             std::int32_t timeoutMs);
int LIPCReadMessage(LIPCConnection& connection);
// Whether the bytes are the payload that stands for no data.
bool IsNoReply(const void* data, std::uint32_t length);
DWORD WaitLimit(std::int32_t timeoutMs);
