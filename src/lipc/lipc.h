// lipc/: local request and reply between the processes of one instance: blocks of bytes over named
// pipes, one request at a time on each pipe, with a pool of pipes an endpoint. What the bytes mean
// is the callers' affair.
//
// Clients: LIPCOpenClient once; a request with LIPCRequest; LIPCWaitReply as long as the caller
// wants to go on after -5; LIPCRelease after 0, or when giving up after -5; LIPCClose at the end.
// After any other result the layer has taken the connection back. Any number of threads may use one
// endpoint. Servers: LIPCOpenServer once; threads loop over LIPCReceive and LIPCReply; LIPCClose at
// the end.
#pragma once

#include <cstdint>

struct LIPCEndpoint;
struct LIPCConnection;

// Status of all operations of the layer, the pipe transport included.
inline constexpr int LIPC_OK = 0;
inline constexpr int LIPC_BAD_ARGUMENT = -1;
inline constexpr int LIPC_NO_MEMORY = -2;
inline constexpr int LIPC_TABLE_FULL = -3;
inline constexpr int LIPC_BROKEN = -4;
inline constexpr int LIPC_TIMED_OUT = -5;
inline constexpr int LIPC_BUSY = -6;
inline constexpr int LIPC_NOT_THERE = -8;
inline constexpr int LIPC_FAILED = -13;
inline constexpr int LIPC_CLOSING = -15;
inline constexpr int LIPC_PEER_CLOSED = -25;

// Makes a client endpoint. No pipe is opened, so it succeeds whether the daemon runs or not. The
// name is copied.
int LIPCOpenClient(LIPCEndpoint** endpoint, const char* name);

// Sends one request and waits for its reply, up to timeoutMs for each wait (-1: no limit). On 0 and
// on LIPC_TIMED_OUT *connection is held by the caller. The reply belongs to the connection until
// LIPCRelease; a reply without data gives null and 0.
int LIPCRequest(LIPCEndpoint* endpoint, LIPCConnection** connection, const void* data,
                std::uint32_t length, const void** reply, std::uint32_t* replyLength,
                std::int32_t timeoutMs);
// As LIPCRequest, for callers who would rather wait than hear LIPC_NOT_THERE while all connections
// that the endpoint may open are held: it waits for one to come free, up to timeoutMs, and then
// gives LIPC_BUSY, as when the daemon's instances are. The reply is waited for as long as is left
// of timeoutMs. LIPC_NOT_THERE means here that the daemon isn't there. Those who wait take their
// turns: *turn is 0 before the first attempt, and kept for the further ones it keeps the caller's
// place.
int LIPCRequestInTurn(LIPCEndpoint* endpoint, LIPCConnection** connection, const void* data,
                      std::uint32_t length, const void** reply, std::uint32_t* replyLength,
                      std::int32_t timeoutMs, std::uint64_t* turn);
// Goes on waiting after LIPC_TIMED_OUT. The connection stays held whatever the result.
int LIPCWaitReply(LIPCEndpoint* endpoint, LIPCConnection* connection, const void** reply,
                  std::uint32_t* replyLength, std::int32_t timeoutMs);
// Frees the reply and gives the connection back to the pool; one whose reply has not come is
// dropped, so that a late reply can't meet another request, as is one more than the pool keeps.
// Null: LIPC_BAD_ARGUMENT.
int LIPCRelease(LIPCEndpoint* endpoint, LIPCConnection* connection);
// Wakes all who wait in the endpoint, also for a daemon that takes no bytes, waits until they have
// left, and frees it.
int LIPCClose(LIPCEndpoint* endpoint);

// Frame every operation but LIPCClose. A caller that shares an endpoint with others, of whom one
// may close it at any time, puts them around its own run of calls: LIPCEnter gives false once
// LIPCClose has begun; after true the endpoint stays until LIPCLeave.
bool LIPCEnter(LIPCEndpoint& endpoint);
void LIPCLeave(LIPCEndpoint& endpoint);

// Makes a serving endpoint. Clients connect from then on; they wait until somebody is in
// LIPCReceive. LIPC_FAILED if the name is served already.
int LIPCOpenServer(LIPCEndpoint** endpoint, const char* name);
// Waits for the next request of any client, up to timeoutMs. On 0 the caller holds *connection
// until LIPCReply; the request's bytes are valid as long. LIPC_CLOSING once LIPCClose has begun.
// Any number of threads.
int LIPCReceive(LIPCEndpoint* endpoint, LIPCConnection** connection, const void** data,
                std::uint32_t* length, std::int32_t timeoutMs);
// Sends the one reply (null and 0: a reply without data) and gives the connection back, also on
// failure.
int LIPCReply(LIPCEndpoint* endpoint, LIPCConnection* connection, const void* data,
              std::uint32_t length);
