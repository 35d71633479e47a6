#include "daemons/maild/engine/connection.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

namespace {

constexpr std::size_t kMaxReply = 4096;
constexpr std::chrono::milliseconds kLookAtFlag{200};
constexpr unsigned kGoneAfterMs = 5000;

}  // namespace

void Connection::SetEnd(Clock::time_point end, const std::atomic<bool>* cancel) {
    end_ = end;
    cancel_ = cancel;
    timedOut_ = false;
}

ScanOutcome Connection::Open(std::span<const SocketTarget> targets) {
    ScanOutcome outcome = ScanOutcome::kDown;
    const Clock::time_point end = end_;
    for (std::size_t i = 0; i < targets.size(); ++i) {
        const auto left = static_cast<int>(targets.size() - i);
        const Clock::time_point now = Clock::now();
        outcome = OpenOne(targets[i], now + (end - now) / left);
        end_ = end;
        reached_ = i;
        if (outcome == ScanOutcome::kClean || outcome == ScanOutcome::kNoMeans) break;
        socket_.Reset();
    }
    return outcome;
}

ScanOutcome Connection::OpenOne(const SocketTarget& target, Clock::time_point end) {
    end_ = end;
    const int family = target.address.ss_family;
    socket_.Reset(socket(family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!socket_) return errno == EAFNOSUPPORT ? ScanOutcome::kDown : ScanOutcome::kNoMeans;
    if (!target.IsLocal()) {
        const int on = 1;
        setsockopt(socket_.Get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    }
    for (;;) {
        if (connect(socket_.Get(), reinterpret_cast<const sockaddr*>(&target.address),
                    target.length) == 0)
            return ScanOutcome::kClean;
        if (errno == EINPROGRESS || (errno == EINTR && !target.IsLocal())) break;
        if (errno == EINTR) continue;
        if (errno != EAGAIN) return ScanOutcome::kDown;
        // Its queue is full: it is alive, and there may be room in a moment.
        if (Clock::now() >= end_) return ScanOutcome::kBusy;
        usleep(10000);
    }
    errno = EAGAIN;
    if (!Again(platform::Want::kWrite)) return ScanOutcome::kDown;
    int error = 0;
    socklen_t length = sizeof error;
    return getsockopt(socket_.Get(), SOL_SOCKET, SO_ERROR, &error, &length) == 0 && error == 0
               ? ScanOutcome::kClean
               : ScanOutcome::kDown;
}

bool Connection::Send(const void* data, std::size_t length) {
    const char* at = static_cast<const char*>(data);
    while (length > 0) {
        const ssize_t count = send(socket_.Get(), at, length, MSG_NOSIGNAL);
        if (count < 0 && !Again(platform::Want::kWrite)) return false;
        if (count <= 0) continue;
        at += count;
        length -= static_cast<std::size_t>(count);
    }
    return true;
}

bool Connection::SendFile(const char* command, std::size_t length, int file) {
    // The descriptor travels with one byte of its own, behind the command.
    char byte = 0;
    iovec data{&byte, 1};
    alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int))> control{};
    msghdr message{};
    message.msg_iov = &data;
    message.msg_iovlen = 1;
    message.msg_control = control.data();
    message.msg_controllen = control.size();
    cmsghdr* header = CMSG_FIRSTHDR(&message);
    header->cmsg_level = SOL_SOCKET;
    header->cmsg_type = SCM_RIGHTS;
    header->cmsg_len = CMSG_LEN(sizeof(int));
    std::memcpy(CMSG_DATA(header), &file, sizeof file);
    if (!Send(command, length)) return false;
    while (sendmsg(socket_.Get(), &message, MSG_NOSIGNAL) < 0) {
        if (!Again(platform::Want::kWrite)) return false;
    }
    return true;
}

bool Connection::Receive(std::string& reply) {
    reply.clear();
    for (std::array<char, 512> buffer; reply.size() < kMaxReply;) {
        const ssize_t count = ReceiveSome(buffer.data(), buffer.size());
        if (count <= 0) return false;
        reply.append(buffer.data(), static_cast<std::size_t>(count));
        const std::size_t zero = reply.find('\0');
        if (zero == std::string::npos) continue;
        if (zero + 1 != reply.size()) return false;
        reply.pop_back();
        if (reply.ends_with('\n')) reply.pop_back();
        return !reply.empty();
    }
    return false;
}

ssize_t Connection::ReceiveSome(char* data, std::size_t size) {
    for (;;) {
        const ssize_t count = recv(socket_.Get(), data, size, 0);
        if (count >= 0 || !Again(platform::Want::kRead)) return count;
    }
}

// After a failed call: waits if it only would have blocked.
bool Connection::Again(platform::Want want) {
    if (errno == EINTR) return true;
    if (errno != EAGAIN && errno != EWOULDBLOCK) return false;
    for (;;) {
        const Clock::time_point now = Clock::now();
        timedOut_ = now >= end_ || (cancel_ != nullptr && *cancel_);
        if (timedOut_) return false;
        const auto until = cancel_ != nullptr ? std::min(end_, now + kLookAtFlag) : end_;
        const int ready = platform::WaitForDescriptor(socket_.Get(), want, until);
        if (ready != 0) return ready > 0;
    }
}

void Connection::NoticeLoss() {
    // Small things are taken by the other system itself, however busy the process is.
    const unsigned gone = kGoneAfterMs;
    setsockopt(socket_.Get(), IPPROTO_TCP, TCP_USER_TIMEOUT, &gone, sizeof gone);
}

bool Connection::HungUp() const {
    pollfd entry{socket_.Get(), POLLRDHUP, 0};
    return !socket_ || (poll(&entry, 1, 0) > 0 && entry.revents != 0);
}

int Connection::Peer() const {
    ucred peer{};
    socklen_t length = sizeof peer;
    return getsockopt(socket_.Get(), SOL_SOCKET, SO_PEERCRED, &peer, &length) == 0 ? peer.pid : 0;
}

bool Connection::Poke(const char* command, std::size_t length, std::string& came) {
    for (std::array<char, 512> buffer; came.size() < kMaxReply;) {
        const ssize_t count = recv(socket_.Get(), buffer.data(), buffer.size(), MSG_DONTWAIT);
        if (count == 0) return false;
        if (count > 0) came.append(buffer.data(), static_cast<std::size_t>(count));
        if (count > 0 || errno == EINTR) continue;
        if (errno != EAGAIN && errno != EWOULDBLOCK) return false;
        break;
    }
    // One that finds no room goes to an engine that hangs: it may be there again in a while.
    return send(socket_.Get(), command, length, MSG_NOSIGNAL | MSG_DONTWAIT) >= 0 ||
           errno == EAGAIN || errno == EINTR;
}
