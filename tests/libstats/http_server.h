// An HTTP server for one connection: it reads a request, plays its answer piece by piece and
// closes.
#pragma once

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

class HttpServer {
  public:
    // The pieces are sent with a pause between them. A port that is taken shows as port 0.
    explicit HttpServer(std::vector<std::string> pieces, int pauseMs = 0, int port = 0) {
        listener_ = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        auto* generic = reinterpret_cast<sockaddr*>(&address);
        socklen_t length = sizeof address;
        address.sin_port = htons(static_cast<std::uint16_t>(port));
        const int on = 1;
        setsockopt(listener_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
        if (bind(listener_, generic, length) != 0 || listen(listener_, 4) != 0) return;
        getsockname(listener_, generic, &length);
        port_ = ntohs(address.sin_port);
        thread_ = std::thread([this, pieces = std::move(pieces), pauseMs] {
            const int peer = accept(listener_, nullptr, nullptr);
            if (peer < 0) return;
            ReadRequest(peer);
            for (const std::string& piece : pieces) {
                if (send(peer, piece.data(), piece.size(), MSG_NOSIGNAL) < 0) break;
                std::this_thread::sleep_for(std::chrono::milliseconds(pauseMs));
            }
            close(peer);
        });
    }
    HttpServer(const HttpServer&) = delete;
    HttpServer& operator=(const HttpServer&) = delete;
    ~HttpServer() { Request(); }

    int Port() const { return port_; }
    // What came, once the connection is over; empty if none was made.
    const std::string& Request() {
        shutdown(listener_, SHUT_RDWR);
        if (thread_.joinable()) thread_.join();
        if (listener_ >= 0) close(listener_);
        listener_ = -1;
        return request_;
    }

  private:
    void ReadRequest(int peer) {
        char block[4096];
        for (;;) {
            const std::size_t head = request_.find("\r\n\r\n");
            const std::size_t at = request_.find("Content-Length: ");
            if (head != std::string::npos &&
                (at == std::string::npos ||
                 request_.size() >= head + 4 + std::stoul(request_.substr(at + 16))))
                return;
            const ssize_t count = recv(peer, block, sizeof block, 0);
            if (count <= 0) return;
            request_.append(block, static_cast<std::size_t>(count));
        }
    }

    int listener_ = -1;
    int port_ = 0;
    std::string request_;  // the thread's until it is joined
    std::thread thread_;
};
