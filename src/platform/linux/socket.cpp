#include "platform/socket.h"

#include <fcntl.h>
#include <netinet/tcp.h>
#include <sys/sendfile.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <span>

#include "platform/clock.h"
#include "platform/file.h"
#include "platform/linux/task/task_thread.h"
#include "platform/linux/wait/object.h"
#include "platform/window.h"

using platform::TaskThread;

namespace {

int Outcome(ssize_t result) {
    if (result >= 0) return static_cast<int>(result);
    return errno == EAGAIN || errno == EWOULDBLOCK ? SOCKET_WOULD_BLOCK : SOCKET_BROKEN;
}

int Poll(std::span<pollfd> entries, std::chrono::steady_clock::time_point end, bool blocked) {
    TaskThread* const thread = TaskThread::Current();
    return thread != nullptr ? thread->Poll(entries, end, blocked, true)
                             : platform::PollUntil(entries, end);
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
    if (TaskThread* const thread = TaskThread::Current()) thread->Forget(socket);
    return close(socket);
}

SOCKET SocketAvoidZero(SOCKET socket) {
    if (socket != 0) return socket < 0 ? INVALID_SOCKET : socket;
    const SOCKET moved = fcntl(0, F_DUPFD_CLOEXEC, 3);
    close(0);
    return moved < 0 ? INVALID_SOCKET : moved;
}

SOCKET SocketCreate(int type) { return SocketAvoidZero(socket(AF_INET, type | SOCK_CLOEXEC, 0)); }

SOCKET SocketCreateNonBlocking(int type, int family) {
    return SocketAvoidZero(socket(family, type | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
}

SOCKET SocketAccept(SOCKET listener, SocketAddress* address) {
    socklen_t length = SocketAddress::kRoom;
    const SOCKET accepted =
        accept4(listener, address != nullptr ? address->Room() : nullptr,
                address != nullptr ? &length : nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    // The connection stays in the backlog and would notify again at once, in a busy loop.
    if (accepted < 0 && (errno == EMFILE || errno == ENFILE || errno == ENOMEM || errno == ENOBUFS))
        HoldAsyncSockets();
    return SocketAvoidZero(accepted);
}

int SocketBeginConnect(SOCKET socket, const SocketAddress& address) {
    if (connect(socket, address.Record(), address.Size()) == 0) return 0;
    return errno == EINPROGRESS ? 0 : errno;
}

int SocketEndConnect(SOCKET socket, std::chrono::milliseconds limit) {
    pollfd entry{socket, POLLOUT, 0};
    const int ready = Poll(std::span(&entry, 1), std::chrono::steady_clock::now() + limit, false);
    if (ready < 0) return errno;
    if (ready == 0) return ETIMEDOUT;
    if ((entry.revents & (POLLERR | POLLHUP | POLLNVAL)) == 0) return 0;
    int error = 0;
    socklen_t length = sizeof error;
    if (getsockopt(socket, SOL_SOCKET, SO_ERROR, &error, &length) != 0) return errno;
    // One that was shut down while it was on its way may have told its error already.
    return error != 0 ? error : ENOTCONN;
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

int SocketSendFileNow(SOCKET socket, const platform::File& file, long long offset, int length) {
    off_t at = offset;
    ssize_t result = 0;
    do {
        result = sendfile(socket, file.Descriptor(), &at, static_cast<std::size_t>(length));
    } while (result < 0 && errno == EINTR);
    return result == 0 ? SOCKET_BROKEN : Outcome(result);
}

bool SocketWaitAny(SocketWatch* watches, std::size_t count, std::chrono::milliseconds limit,
                   bool blocked) {
    std::array<pollfd, kMostWatches> entries{};
    count = std::min(count, kMostWatches);
    const auto wanted = [](SocketWant want) {
        return want == SocketWant::kRead ? POLLIN : want == SocketWant::kWrite ? POLLOUT : 0;
    };
    for (std::size_t i = 0; i < count; ++i) {
        watches[i].found = {false, false};
        entries[i] = {watches[i].socket, static_cast<short>(wanted(watches[i].want) | POLLPRI), 0};
    }
    const int result = Poll(std::span(entries.data(), count), platform::TickBehind(limit), blocked);
    if (result < 0) {
        for (std::size_t i = 0; i < count; ++i) watches[i].found.exception = true;
    }
    if (result <= 0) return result < 0;
    for (std::size_t i = 0; i < count; ++i) {
        // A half-closed connection shows as readable, not as hung up. With a wait for readiness an
        // error or a reset is told by the call that follows; asked for nothing, it is the answer.
        const int seen = entries[i].revents;
        const bool urgent = (seen & (POLLPRI | POLLNVAL)) != 0;
        const bool dead = (seen & (POLLERR | POLLHUP)) != 0;
        watches[i].found = {(seen & wanted(watches[i].want)) != 0 || dead,
                            urgent || (dead && watches[i].want == SocketWant::kNothing)};
    }
    return true;
}

SocketReadiness SocketWait(SOCKET socket, SocketWant want, DWORD seconds) {
    SocketWatch watch{socket, want, {}};
    SocketWaitAny(&watch, 1, std::chrono::seconds(seconds));
    return watch.found;
}

void SocketSendAtOnce(SOCKET socket) {
    const int on = 1;
    setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

void SocketTakeBothFamilies(SOCKET socket, bool both) {
    const int only = both ? 0 : 1;
    setsockopt(socket, IPPROTO_IPV6, IPV6_V6ONLY, &only, sizeof only);
}

void SocketAllowReuse(SOCKET socket) {
    const int on = 1;
    setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
}

void SocketRaiseReceiveBuffer(SOCKET socket, int least) {
    int size = 0;
    socklen_t length = sizeof size;
    if (getsockopt(socket, SOL_SOCKET, SO_RCVBUF, &size, &length) != 0 || size < least)
        setsockopt(socket, SOL_SOCKET, SO_RCVBUF, &least, sizeof least);
}

void SocketEndSending(SOCKET socket) { shutdown(socket, SHUT_WR); }
