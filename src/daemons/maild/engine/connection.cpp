#include "daemons/maild/engine/connection.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

namespace {

constexpr std::size_t kMaxReply = 4096;
constexpr std::chrono::milliseconds kLookAtFlag{200};

}  // namespace

void Connection::SetEnd(Clock::time_point end, const std::atomic<bool>* cancel) {
    end_ = end;
    cancel_ = cancel;
    timedOut_ = false;
}

ScanOutcome Connection::Open(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) return ScanOutcome::kDown;
    std::memcpy(address.sun_path, path.c_str(), path.size());
    socket_.Reset(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    while (socket_) {
        if (connect(socket_.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) ==
            0)
            return ScanOutcome::kClean;
        if (errno != EAGAIN && errno != EINTR) return ScanOutcome::kDown;
        // Its queue is full: it is alive, and there may be room in a moment.
        if (Clock::now() >= end_) return ScanOutcome::kBusy;
        usleep(10000);
    }
    return ScanOutcome::kNoMeans;
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
        const ssize_t count = recv(socket_.Get(), buffer.data(), buffer.size(), 0);
        if (count < 0) {
            if (!Again(platform::Want::kRead)) return false;
            continue;
        }
        if (count == 0) break;
        reply.append(buffer.data(), static_cast<std::size_t>(count));
        if (reply.back() == '\0') break;
    }
    while (!reply.empty() && (reply.back() == '\0' || reply.back() == '\n')) reply.pop_back();
    return !reply.empty();
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
