// Sockets: the operations of the socket layer with their documented names, and the few that POSIX
// and Windows spell differently. No call here but that for files raises SIGPIPE, none is limited to
// low descriptors, and none hands out descriptor 0, which is the empty marker of the layer above.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>

#include "platform/types.h"

namespace platform {
class File;
}

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

// An address and a port as the system takes them: the 16-byte record of IPv4, or that of IPv6. Not
// known (all zero, and of no family) until it has been given one of these.
class SocketAddress {
  public:
    SocketAddress() : v6_{} {}
    explicit SocketAddress(const sockaddr_in& record) : SocketAddress() { v4_ = record; }
    explicit SocketAddress(const sockaddr_in6& record) : v6_(record) {}

    bool Known() const { return Family() == AF_INET || Family() == AF_INET6; }
    int Family() const { return any_.sa_family; }
    std::uint16_t Port() const { return ntohs(v4_.sin_port); }  // host order
    void SetPort(std::uint16_t port) { v4_.sin_port = htons(port); }
    // The family's record; of that family only.
    const sockaddr_in& V4() const { return v4_; }
    const sockaddr_in6& V6() const { return v6_; }

    // For the system's calls: the record and its size, or room for one of either family.
    const sockaddr* Record() const { return &any_; }
    socklen_t Size() const { return Family() == AF_INET6 ? sizeof v6_ : sizeof v4_; }
    sockaddr* Room() { return &any_; }
    static constexpr socklen_t kRoom = sizeof(sockaddr_in6);

  private:
    // Family and port stand at the same place in all of them.
    union {
        sockaddr any_;
        sockaddr_in v4_;
        sockaddr_in6 v6_;
    };
};
static_assert(sizeof(sockaddr_in) == 16);

// A fresh socket as it came from the system, or another descriptor for it instead of 0, the empty
// marker of the layer above; INVALID_SOCKET if there is none.
SOCKET SocketAvoidZero(SOCKET socket);
// A new IPv4 socket, close-on-exec; INVALID_SOCKET on failure.
SOCKET SocketCreate(int type);
// The same for the family, and non-blocking.
SOCKET SocketCreateNonBlocking(int type, int family);
// Accepts from a listener, non-blocking and close-on-exec. INVALID_SOCKET if nothing waits or on
// failure; a shortage of descriptors or memory then holds back this thread's accept notifications
// for 100 ms.
SOCKET SocketAccept(SOCKET listener, SocketAddress* address);
// Begins to connect a non-blocking socket. 0 if it is connected or on its way, else the system's
// error value.
int SocketBeginConnect(SOCKET socket, const SocketAddress& address);
// Waits for the end of that: 0, or the system's error value, ETIMEDOUT once the time is over. A
// shutdown of the socket by another thread ends the wait.
int SocketEndConnect(SOCKET socket, std::chrono::milliseconds limit);
// Receive and send what is possible at once, whatever the socket's mode. The count, 0 (receive:
// peer closed), SOCKET_WOULD_BLOCK, or SOCKET_BROKEN.
inline constexpr int SOCKET_WOULD_BLOCK = -2;
inline constexpr int SOCKET_BROKEN = -1;
int SocketReceiveNow(SOCKET socket, void* buffer, int length, bool peek);
int SocketSendNow(SOCKET socket, const void* buffer, int length);
// As SocketSendNow, of a file's bytes from `offset` on, which don't pass the process. SOCKET_BROKEN
// also where the file can't be sent in that way, or ends in front of the offset. A broken
// connection raises SIGPIPE, which the programs ignore (console.h).
int SocketSendFileNow(SOCKET socket, const platform::File& file, long long offset, int length);
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
// signal restarts the wait with the time that is left. False: the time is over. `blocked`: the
// caller has just seen that what it wants is not there; it saves a look, and the wait may end for
// nothing.
bool SocketWaitAny(SocketWatch* watches, std::size_t count, std::chrono::milliseconds limit,
                   bool blocked = false);
// Waits up to `seconds`; a signal restarts the wait with the time that is left. Both false: the
// time is over.
SocketReadiness SocketWait(SOCKET socket, SocketWant want, DWORD seconds);
// From now on what is sent goes out at once, and does not wait for what went before to be
// acknowledged. For a writer that puts together itself what belongs together.
void SocketSendAtOnce(SOCKET socket);
// Before its Bind: whether an IPv6 listener takes IPv4 clients too, as it does on "::" only.
void SocketTakeBothFamilies(SOCKET socket, bool both);
// A listener that starts anew gets its port while old connections linger.
void SocketAllowReuse(SOCKET socket);
// Raises the receive buffer to that many bytes, never lowers it: a fixed size below the system's
// would stop its own tuning.
void SocketRaiseReceiveBuffer(SOCKET socket, int least);
// Tells the other side that nothing more comes; it can still send.
void SocketEndSending(SOCKET socket);
