// Inside lipc/: the records behind endpoints and connections. An endpoint's lock comes before the
// channels'.
#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "lipc/lipc.h"
#include "platform/sync.h"

enum EndpointMode { kServerMode = 0, kClientMode = 1 };

// A client may have one more than this in use.
inline constexpr std::size_t kMaxBusyConnections = 256;
// Free connections that a client keeps for the next requests: what a burst has opened beyond them
// is closed as it comes back.
inline constexpr std::size_t kIdleConnections = 24;
// The connections that a server takes, of all its clients. Those beyond it wait in the socket's
// backlog until another goes.
inline constexpr std::size_t kServerLimit = 512;

using LIPCConnections = std::list<std::unique_ptr<LIPCConnection>>;

// A client's connection is its holder's alone, with all that is not said to be guarded.
struct LIPCConnection {
    LIPCEndpoint* owner = nullptr;
    LIPCConnections::iterator place;  // guarded by the endpoint's lock
    int channel = -1;                 // written under the endpoint's lock
    std::vector<char> reply;
    bool broken = false;      // server: guarded by the endpoint's lock, as the next three
    bool inUse = false;       // server: somebody has it
    bool queued = false;      // server: it is in the endpoint's queue
    bool met = false;         // server: a client has come
    bool peerClosed = false;  // client
    bool awaiting = false;    // client: a request has gone out and its reply has not been taken
    bool written = false;     // client: the request has gone out since somebody looked
};

// A caller who waits for a free connection, on its own stack.
struct LIPCWaiter {
    UniqueHandle wake;
};

struct LIPCEndpoint {
    EndpointMode mode = kClientMode;
    std::string name;
    std::atomic<bool> closing{false};  // written under lock
    std::atomic<int> users{0};         // calls inside the endpoint
    std::mutex lock;                   // guards all below
    LIPCConnections connections;       // client: those in use
    // Client.
    LIPCConnections idle;  // longest first
    // Those who wait for a free connection, by their turns. The first one is woken when a
    // connection comes free and takes it; nobody who asks for a turn overtakes it.
    std::map<std::uint64_t, LIPCWaiter*> waiting;
    std::uint64_t lastTurn = 0;
    // Server. All who serve wait on the one queue of the channels' completions. What a completion
    // has led to stands here, for whoever comes first.
    UniqueHandle completions;              // not guarded: as long as there are users
    UniqueHandle served;                   // the name
    std::deque<LIPCConnection*> requests;  // connections with a request, which nobody has
    std::deque<LIPCConnection*> lost;      // to be dropped
    std::size_t listening = 0;             // connections that wait for a client
};

int LIPCCreateEndpoint(LIPCEndpoint** endpoint, const char* name, EndpointMode mode);
// A new record without a pipe, held by the caller. Under the endpoint's lock. Null without memory.
LIPCConnection* LIPCAddConnection(LIPCEndpoint& endpoint);
// Opens the pipe of a held record: connects (client), or listens (server) and lets go of it: before
// its channel is known nobody could read a request. On failure the record is dropped. With no lock
// held.
int LIPCOpenConnection(LIPCEndpoint& endpoint, LIPCConnection& connection);
// Ends a held connection. With no lock held.
void LIPCDropConnection(LIPCEndpoint& endpoint, LIPCConnection& connection);
// Server: what a channel tells; see PipeEvent.
void LIPCOnServerEvent(void* connection, int event);
// Server: gives a held connection back, or has it dropped if it has failed.
void LIPCLetGo(LIPCEndpoint& endpoint, LIPCConnection& connection, bool failed);
// Wakes the first of those who wait for a free connection. Under the endpoint's lock.
void LIPCWakeNext(LIPCEndpoint& endpoint);
int LIPCSend(LIPCConnection& connection, const void* data, std::uint32_t length,
             std::int32_t timeoutMs);
// Takes all that has come whole. LIPC_NOT_THERE if there is nothing.
int LIPCReadMessage(LIPCConnection& connection);
// Whether the bytes are the payload that stands for no data.
bool IsNoReply(const void* data, std::uint32_t length);
