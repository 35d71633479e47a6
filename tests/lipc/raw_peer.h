// The other side of a pipe, byte by byte, and one exchange with it.
#pragma once

#include <gtest/gtest.h>
#include <linux/sockios.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <string>
#include <thread>

#include "lipc/lipc.h"
#include "platform/home.h"

// A peer that speaks the bytes itself, on the pipe's socket.
class RawServer {
  public:
    explicit RawServer(const std::string& name) : listener_(socket(AF_UNIX, SOCK_STREAM, 0)) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        const std::string path = platform_path(name);
        std::memcpy(address.sun_path, path.c_str(), path.size());
        EXPECT_EQ(bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        EXPECT_EQ(listen(listener_, 2000), 0);
        path_ = path;
    }
    ~RawServer() {
        close(listener_);
        unlink(path_.c_str());
    }
    int Accept() const { return accept(listener_, nullptr, nullptr); }
    int Listener() const { return listener_; }
    static std::string platform_path(const std::string& name) {
        return platform::HomePath("pipes/") + name;
    }

  private:
    int listener_;
    std::string path_;
};

inline std::string ReadBytes(int descriptor, std::size_t count) {
    std::string bytes(count, '\0');
    std::size_t have = 0;
    while (have < count) {
        pollfd entry{descriptor, POLLIN, 0};
        if (poll(&entry, 1, 5000) != 1) break;
        const ssize_t n = read(descriptor, bytes.data() + have, count - have);
        if (n <= 0) break;
        have += static_cast<std::size_t>(n);
    }
    bytes.resize(have);
    return bytes;
}

inline std::string Frame(const std::string& payload) {
    std::string frame("VTIPC\0\0\0", 8);
    for (int twice = 0; twice < 2; ++twice) {
        for (unsigned i = 0; i < 4; ++i) frame += static_cast<char>(payload.size() >> (8 * i));
    }
    return frame + std::string(4, '\0') + payload;
}

inline void Write(int descriptor, const std::string& bytes) {
    ASSERT_EQ(write(descriptor, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    // The next piece is a read of its own: it goes out when the other side has taken this one, or
    // leaves it where it is.
    int left = 1;
    for (int i = 0; i < 200 && left != 0; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
        if (ioctl(descriptor, SIOCOUTQ, &left) != 0) break;
    }
}

struct Exchange {
    int status = 1;
    std::string reply;
    bool null = false;
};
inline Exchange Ask(LIPCEndpoint* endpoint, const std::string& request, std::int32_t timeoutMs) {
    Exchange result;
    LIPCConnection* connection = nullptr;
    const void* reply = nullptr;
    std::uint32_t length = 0;
    result.status =
        LIPCRequest(endpoint, &connection, request.data(),
                    static_cast<std::uint32_t>(request.size()), &reply, &length, timeoutMs);
    if (reply != nullptr) result.reply.assign(static_cast<const char*>(reply), length);
    result.null = reply == nullptr;
    if (connection != nullptr) LIPCRelease(endpoint, connection);
    return result;
}
