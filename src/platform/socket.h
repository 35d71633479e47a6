// Sockets: the operations of the socket layer with their documented names, and the few that POSIX
// and Windows spell differently. IPv4 only. No call here raises SIGPIPE, none is limited to low
// descriptors, and none hands out descriptor 0, which is the empty marker of the layer above.
#pragma once

#include <chrono>
#include <cstddef>

#include "platform/types.h"

#ifdef _WIN32
#include <winsock2.h>
#include <ws2tcpip.h>
#else
#include "platform/linux/socket_types.h"

using SOCKET = int;
inline constexpr SOCKET INVALID_SOCKET = -1;
inline constexpr int SD_BOTH = 2;

struct WSADATA {
    WORD wVersion;
};
// Counted start and end of the socket layer. 0 on success.
int WSAStartup(WORD version, WSADATA* data);
int WSACleanup();
// Closes a socket; an accept notification of the calling thread for it ends.
int closesocket(SOCKET socket);
#endif

// The 16-byte IPv4 address record; all numbers in network byte order.
using SocketAddress = sockaddr_in;
static_assert(sizeof(SocketAddress) == 16);

// A fresh socket as it came from the system, or another descriptor for it instead of 0, the empty
// marker of the layer above; INVALID_SOCKET if there is none.
SOCKET SocketAvoidZero(SOCKET socket);
// A new IPv4 socket, close-on-exec; INVALID_SOCKET on failure.
SOCKET SocketCreate(int type);
// Accepts from a listener, non-blocking and close-on-exec. INVALID_SOCKET if nothing waits or on
// failure; a shortage of descriptors or memory then holds back this thread's accept notifications
// for 100 ms.
SOCKET SocketAccept(SOCKET listener, SocketAddress* address);
// Receive and send what is possible at once, whatever the socket's mode. The count, 0 (receive:
// peer closed), SOCKET_WOULD_BLOCK, or SOCKET_BROKEN.
inline constexpr int SOCKET_WOULD_BLOCK = -2;
inline constexpr int SOCKET_BROKEN = -1;
int SocketReceiveNow(SOCKET socket, void* buffer, int length, bool peek);
int SocketSendNow(SOCKET socket, const void* buffer, int length);
// What one look at a socket shows.
struct SocketReadiness {
    bool ready;      // readable, or writable, as asked for
    bool exception;  // urgent data, a pending error, a reset or fully closed connection, or no
                     // socket
};
enum class SocketWant { kRead, kWrite, kNothing };
// One of several sockets to wait for, and what was found.
struct SocketWatch {
    SOCKET socket = INVALID_SOCKET;
    SocketWant want = SocketWant::kNothing;
    SocketReadiness found{};
};
inline constexpr std::size_t kMostWatches = 2;
// Waits until one of `count` sockets (kMostWatches at most) shows something, or for the time; a
// signal restarts the wait with the time that is left. False: the time is over.
bool SocketWaitAny(SocketWatch* watches, std::size_t count, std::chrono::milliseconds limit);
// Waits up to `seconds`; a signal restarts the wait with the time that is left. Both false: the
// time is over.
SocketReadiness SocketWait(SOCKET socket, SocketWant want, DWORD seconds);
// From now on what is sent goes out at once, and does not wait for what went before to be
// acknowledged. For a writer that puts together itself what belongs together.
void SocketSendAtOnce(SOCKET socket);
// A listener that starts anew gets its port while old connections linger.
void SocketAllowReuse(SOCKET socket);
// Raises the receive buffer to that many bytes, never lowers it: a fixed size below the system's
// would stop its own tuning.
void SocketRaiseReceiveBuffer(SOCKET socket, int least);
// Tells the other side that nothing more comes; it can still send.
void SocketEndSending(SOCKET socket);
