// A blocking socket of the soak's peers, read by lines and by counts.
#pragma once

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstddef>
#include <string>
#include <string_view>
#include <utility>

class LineSocket {
  public:
    // Takes the descriptor. Reads and sends fail after the seconds.
    LineSocket(int descriptor, int seconds) : descriptor_(descriptor) {
        const timeval limit{seconds, 0};
        const int yes = 1;
        setsockopt(descriptor_, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
        setsockopt(descriptor_, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
        setsockopt(descriptor_, IPPROTO_TCP, TCP_NODELAY, &yes, sizeof yes);
    }
    LineSocket(LineSocket&& other) noexcept
        : descriptor_(std::exchange(other.descriptor_, -1)),
          buffer_(std::move(other.buffer_)),
          at_(other.at_) {}
    LineSocket(const LineSocket&) = delete;
    LineSocket& operator=(const LineSocket&) = delete;
    LineSocket& operator=(LineSocket&&) = delete;
    ~LineSocket() {
        if (descriptor_ >= 0) close(descriptor_);
    }
    // The close is a reset.
    void CloseHard() const {
        const linger hard{1, 0};
        setsockopt(descriptor_, SOL_SOCKET, SO_LINGER, &hard, sizeof hard);
    }

    bool Send(std::string_view bytes) const {
        while (!bytes.empty()) {
            const ssize_t sent = send(descriptor_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
            if (sent <= 0) return false;
            bytes.remove_prefix(static_cast<std::size_t>(sent));
        }
        return true;
    }
    // A line with its line feed. False when the peer has gone or is silent.
    bool ReadLine(std::string& line) {
        std::size_t end = 0;
        while ((end = buffer_.find('\n', at_)) == std::string::npos)
            if (!Fill()) return false;
        line.assign(buffer_, at_, end + 1 - at_);
        at_ = end + 1;
        return true;
    }
    // Appends so many bytes.
    bool ReadCount(std::string& out, std::size_t count) {
        while (buffer_.size() - at_ < count)
            if (!Fill()) return false;
        out.append(buffer_, at_, count);
        at_ += count;
        return true;
    }

  private:
    bool Fill() {
        buffer_.erase(0, at_);
        at_ = 0;
        const std::size_t old = buffer_.size();
        buffer_.resize(old + 65536);
        const ssize_t got = recv(descriptor_, buffer_.data() + old, 65536, 0);
        buffer_.resize(old + (got > 0 ? static_cast<std::size_t>(got) : 0));
        return got > 0;
    }
    int descriptor_;
    std::string buffer_;
    std::size_t at_ = 0;
};
