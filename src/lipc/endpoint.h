// Inside lipc/: the records behind endpoints and connections. Locks are taken in the order
// endpoint, connection, channel.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "lipc/lipc.h"
#include "platform/sync.h"

enum QueueCode { kCodeMessage = 1, kCodeSent = 2, kCodeLost = 3, kCodeShutdown = 4 };
enum EndpointMode { kServerMode = 0, kClientMode = 1 };

inline constexpr int kMaxBusyConnections = 256;
// Free connections that a client keeps for the next requests: what a burst has opened beyond them
// is closed as it comes back.
inline constexpr int kIdleConnections = 16;
// A server begins with this many connections. A client may open one more, there may be several
// clients, and one that found nobody to take its connection would wait in the socket's backlog
// until another goes, which a pool never lets go: so while fewer than kServerSpare are left that no
// client has used, more are made, up to the limit.
inline constexpr std::size_t kServerConnections = 256;
inline constexpr std::size_t kServerSpare = 64;
inline constexpr std::size_t kServerLimit = 512;
inline constexpr LONG kQueueLimit = 4096;

struct LIPCQueueItem {
    int code;
    LIPCConnection* value;  // in an endpoint's queue: the connection concerned
};

struct LIPCConnection {
    bool inUse = false;  // guarded by the endpoint's lock, as the five below
    bool broken = false;
    bool peerClosed = false;
    bool awaiting = false;  // a request has gone out and its reply has not been taken
    bool met = false;       // server: a client has sent a request on it
    bool queued = false;    // server: a request of it waits in the endpoint's queue
    int channel = -1;
    std::vector<char> reply;
    LIPCEndpoint* owner = nullptr;
    std::deque<LIPCQueueItem> queue;  // guarded by lock
    UniqueHandle semaphore;           // counts queue
    std::recursive_mutex lock;        // guards queue and the read of a reply
};

// A caller who waits for a free connection, on its own stack.
struct LIPCWaiter {
    std::condition_variable_any wake;
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
    // Client: those who wait for a free connection, by their turns. The first one is woken when a
    // connection comes free and takes it; nobody who asks for a turn overtakes it.
    std::map<std::uint64_t, LIPCWaiter*> waiting;  // guarded by lock
    std::uint64_t lastTurn = 0;                    // guarded by lock
    // Server: connections that no client has are made, and lost ones ended, by a thread of the
    // endpoint's own, so that a client gets its connection also while all who serve are busy.
    std::size_t met = 0;               // guarded by lock: connections that a client has used
    std::deque<LIPCConnection*> lost;  // guarded by lock: to be dropped, held by the thread
    std::condition_variable_any keep;  // of lost, met, connections and closing
    std::thread keeper;
    // Server: one thread at a time waits for the next request, the others for their turn. Were all
    // to wait for the request, each would wake them all.
    std::mutex turnMutex;
    std::condition_variable turn;
    bool turnTaken = false;  // guarded by turnMutex
};

int LIPCCreateEndpoint(LIPCEndpoint** endpoint, const char* name, EndpointMode mode);
// A new record at the end of the list, without a pipe, held by the caller. Under the endpoint's
// lock. Null without memory.
LIPCConnection* LIPCAddConnection(LIPCEndpoint& endpoint);
// Opens the pipe of a held record: connects (client), or listens (server) and lets go of it: before
// its channel is known nobody could read a request. On failure the record is dropped. With no lock
// held.
int LIPCOpenConnection(LIPCEndpoint& endpoint, LIPCConnection* connection);
// A further listening connection.
int LIPCListen(LIPCEndpoint& endpoint);
void LIPCDropConnection(LIPCEndpoint& endpoint, LIPCConnection* connection);
// Ends a connection that is in the list no more. With no lock held.
void LIPCDiscard(LIPCEndpoint& endpoint, std::unique_ptr<LIPCConnection> dropped);
// Gives a held connection back to the pool. One that is broken is dropped, by the keeper in server
// mode, as is one more than a client's pool keeps.
void LIPCRecycle(LIPCEndpoint& endpoint, LIPCConnection* connection);
// Wakes the first of those who wait for a free connection. Under the endpoint's lock.
void LIPCWakeNext(LIPCEndpoint& endpoint);
// The keeper's thread.
void LIPCKeepListening(LIPCEndpoint& endpoint);
int LIPCSend(LIPCConnection& connection, const void* data, std::uint32_t length,
             std::int32_t timeoutMs);
int LIPCReadMessage(LIPCConnection& connection);
// Whether the bytes are the payload that stands for no data.
bool IsNoReply(const void* data, std::uint32_t length);
