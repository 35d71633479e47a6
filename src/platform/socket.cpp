#include "platform/socket.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>

#include "platform/window.h"

namespace {

// 0 is the empty marker of the layer above: a descriptor 0 is moved up.
SOCKET AvoidZero(SOCKET socket) {
    if (socket != 0) return socket < 0 ? INVALID_SOCKET : socket;
    const SOCKET moved = fcntl(0, F_DUPFD_CLOEXEC, 3);
    close(0);
    return moved < 0 ? INVALID_SOCKET : moved;
}

int Outcome(ssize_t result) {
    if (result >= 0) return static_cast<int>(result);
    return errno == EAGAIN || errno == EWOULDBLOCK ? SOCKET_WOULD_BLOCK : SOCKET_BROKEN;
}

}  // namespace

int WSAStartup(WORD version, WSADATA* data) {
    if (data == nullptr) return 10014;
    data->wVersion = version;
    return 0;
}

int WSACleanup() { return 0; }

int closesocket(SOCKET socket) {
    ForgetAsyncSocket(socket);
    return close(socket);
}

SOCKET SocketCreate(int type) { return AvoidZero(socket(AF_INET, type | SOCK_CLOEXEC, 0)); }

SOCKET SocketAccept(SOCKET listener, SocketAddress* address) {
    socklen_t length = sizeof(SocketAddress);
    const SOCKET accepted =
        accept4(listener, reinterpret_cast<sockaddr*>(address),
                address != nullptr ? &length : nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    // The connection stays in the backlog and would notify again at once, in a busy loop.
    if (accepted < 0 && (errno == EMFILE || errno == ENFILE || errno == ENOMEM || errno == ENOBUFS))
        HoldAsyncSockets();
    return AvoidZero(accepted);
}

int SocketReceiveNow(SOCKET socket, void* buffer, int length, bool peek) {
    ssize_t result = 0;
    do {
        result = recv(socket, buffer, static_cast<std::size_t>(length),
                      MSG_DONTWAIT | (peek ? MSG_PEEK : 0));
    } while (result < 0 && errno == EINTR);
    return Outcome(result);
}

int SocketSendNow(SOCKET socket, const void* buffer, int length) {
    ssize_t result = 0;
    do {
        result =
            send(socket, buffer, static_cast<std::size_t>(length), MSG_DONTWAIT | MSG_NOSIGNAL);
    } while (result < 0 && errno == EINTR);
    return Outcome(result);
}

SocketReadiness SocketWait(SOCKET socket, SocketWant want, DWORD seconds) {
    using Clock = std::chrono::steady_clock;
    const int wanted = want == SocketWant::kRead    ? POLLIN
                       : want == SocketWant::kWrite ? POLLOUT
                                                    : 0;
    pollfd entry{socket, static_cast<short>(wanted | POLLPRI), 0};
    const auto end = Clock::now() + std::chrono::seconds(seconds);
    long long left = static_cast<long long>(seconds) * 1000;
    for (;;) {
        const int result = poll(&entry, 1, static_cast<int>(std::min<long long>(left, 1 << 30)));
        if (result > 0) break;
        if (result < 0 && errno != EINTR) return {false, true};
        left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now()).count();
        if (left <= 0) return {false, false};
    }
    // A half-closed connection shows as readable, not as hung up. With a wait for readiness an
    // error or a reset is told by the call that follows; asked for nothing, it is the answer.
    const bool urgent = (entry.revents & (POLLPRI | POLLNVAL)) != 0;
    const bool dead = (entry.revents & (POLLERR | POLLHUP)) != 0;
    return {(entry.revents & wanted) != 0 || dead,
            urgent || (dead && want == SocketWant::kNothing)};
}
