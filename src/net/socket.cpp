#include "net/socket.h"

#include <array>
#include <cerrno>
#include <cstring>

namespace {

// Where a full backlog refuses, five are enough: the client tries again at once. Here the system
// drops the attempt without a word, and the client waits a second or more: so a burst of
// connections must find room.
#ifdef _WIN32
constexpr int kBacklog = 5;
#else
constexpr int kBacklog = 512;
#endif
constexpr std::uint32_t kSendSeconds = 300;
constexpr int kReceiveBuffer = 32768;  // what the reception of messages wants
constexpr char kLineFeed = '\n';
constexpr char kCarriageReturn = '\r';

int WaitResult(const SocketReadiness& readiness) {
    if (readiness.exception) return -1;
    return readiness.ready ? 1 : 0;
}

}  // namespace

bool CSocket::Create(int type) {
    handle_ = SocketCreate(type);
    return handle_ != INVALID_SOCKET;
}

bool CSocket::Create(int type, const SocketAddress& address) {
    handle_ = SocketCreateNonBlocking(type, address.Family());
    return handle_ != INVALID_SOCKET;
}

void CSocket::Close() {
    if (Empty()) return;
    if (handle_ != INVALID_SOCKET) closesocket(handle_);
    handle_ = 0;
}

void CSocket::Shutdown() {
    if (!Empty()) shutdown(handle_, SD_BOTH);
}

bool CSocket::Bind(const SocketAddress& address) {
    return !Empty() && bind(handle_, address.Record(), address.Size()) == 0;
}

bool CSocket::Listen() { return !Empty() && listen(handle_, kBacklog) == 0; }

int CSocket::CreateListener(const SocketAddress& address, bool bothFamilies) {
    const auto open = [&] {
        if (!Create(SOCK_STREAM, address)) return false;
        SocketAllowReuse(handle_);
        if (address.Family() == AF_INET6) SocketTakeBothFamilies(handle_, bothFamilies);
        // Its connections have these from it.
        SocketSendAtOnce(handle_);
        SocketRaiseReceiveBuffer(handle_, kReceiveBuffer);
        return Bind(address) && Listen();
    };
    if (open()) return 0;
    const int error = errno;
    Close();
    return error;
}

bool CSocket::Accept(CSocket& out, SocketAddress* address) {
    out.handle_ = Empty() ? INVALID_SOCKET : SocketAccept(handle_, address);
    return out.handle_ != INVALID_SOCKET;
}

bool CSocket::Connect(const SocketAddress& address) {
    // An address that is not known would be taken for the wish to be unconnected, and granted.
    return !Empty() && address.Known() && connect(handle_, address.Record(), address.Size()) == 0;
}

int CSocket::Connect(const SocketAddress& address, std::chrono::milliseconds limit,
                     const std::function<bool()>& underWay) {
    if (Empty() || !address.Known()) return EINVAL;
    if (const int error = SocketBeginConnect(handle_, address); error != 0) return error;
    return underWay() ? SocketEndConnect(handle_, limit) : ECONNABORTED;
}

int CSocket::GetPeerAddress(SocketAddress& address) const {
    socklen_t length = SocketAddress::kRoom;
    return Empty() ? -1 : getpeername(handle_, address.Room(), &length);
}

int CSocket::GetOwnAddress(SocketAddress& address) const {
    socklen_t length = SocketAddress::kRoom;
    return Empty() ? -1 : getsockname(handle_, address.Room(), &length);
}

bool CSocket::HasException() const {
    return Empty() || SocketWait(handle_, SocketWant::kNothing, 0).exception;
}

int CSocket::WaitReadable(std::uint32_t seconds) const {
    return Empty() ? 0 : WaitResult(SocketWait(handle_, SocketWant::kRead, seconds));
}

int CSocket::WaitWritable(std::uint32_t seconds) const {
    return Empty() ? 0 : WaitResult(SocketWait(handle_, SocketWant::kWrite, seconds));
}

int CSocket::ReceiveTimed(void* buffer, int length, std::uint32_t seconds) {
    if (Empty()) return -1;
    for (;;) {
        const int count = SocketReceiveNow(handle_, buffer, length, false);
        if (count != SOCKET_WOULD_BLOCK) return count;
        if (WaitReadable(seconds) < 1) return -1;
    }
}

int CSocket::ReadLine(char* buffer, int& length, int size, std::uint32_t seconds) {
    if (size < 3) return 0;
    length = 0;
    if (Empty()) return 0;
    const int limit = size - 1;
    bool complete = false;
    while (!complete && length < limit) {
        // A look first, then exactly the line's bytes: what follows stays for the next reader.
        const int seen = SocketReceiveNow(handle_, buffer + length, limit - length, true);
        if (seen == SOCKET_WOULD_BLOCK) {
            if (WaitReadable(seconds) < 1) return 0;
            continue;
        }
        if (seen <= 0) return 0;
        const void* end = std::memchr(buffer + length, kLineFeed, static_cast<std::size_t>(seen));
        complete = end != nullptr;
        const int take =
            complete ? static_cast<int>(static_cast<const char*>(end) - (buffer + length)) + 1
                     : seen;
        if (SocketReceiveNow(handle_, buffer + length, take, false) != take) return 0;
        length += take;
    }
    if (length >= limit) {
        length = limit;
        buffer[length - 1] = kLineFeed;
        buffer[length - 2] = kCarriageReturn;
        std::array<char, 4096> scratch;
        while (SocketReceiveNow(handle_, scratch.data(), static_cast<int>(scratch.size()), false) >
               0) {
        }
    }
    buffer[length] = '\0';
    return 1;
}

int CSocket::ReadExact(char* buffer, int length, std::uint32_t seconds) {
    int have = 0;
    while (have < length) {
        const int count = ReceiveTimed(buffer + have, length - have, seconds);
        if (count < 1) return 0;
        have += count;
    }
    buffer[have] = '\0';
    return 1;
}

int CSocket::SendAll(const void* buffer, int length) {
    const char* at = static_cast<const char*>(buffer);
    if (length == 0) length = static_cast<int>(std::strlen(at));
    while (length > 0) {
        if (Empty()) return 0;
        const int count = SocketSendNow(handle_, at, length);
        if (count == SOCKET_WOULD_BLOCK) {
            if (WaitWritable(kSendSeconds) < 1) return 0;
            continue;
        }
        if (count < 1) return 0;
        at += count;
        length -= count;
    }
    return 1;
}
