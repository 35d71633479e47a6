// A daemon of this instance that a test plays.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <optional>
#include <string>
#include <thread>

#include "lipc/lipc.h"

class PipeDaemon {
  public:
    // What a request is answered with, empty: that there is none; none: it stays unanswered.
    using Answer = std::function<std::optional<std::string>(const std::string& request)>;

    // Answers on a thread of its own, one request after the other.
    PipeDaemon(const char* name, Answer answer) {
        EXPECT_EQ(LIPCOpenServer(&server_, name), LIPC_OK);
        thread_ = std::thread([server = server_, answer = std::move(answer)] {
            LIPCConnection* connection = nullptr;
            const void* data = nullptr;
            std::uint32_t length = 0;
            for (int status = LIPC_OK; status != LIPC_CLOSING;) {
                status = LIPCReceive(server, &connection, &data, &length, -1);
                if (status != LIPC_OK) continue;
                const auto reply = answer({static_cast<const char*>(data), length});
                if (reply)
                    LIPCReply(server, connection, reply->empty() ? nullptr : reply->data(),
                              static_cast<std::uint32_t>(reply->size()));
            }
        });
    }
    PipeDaemon(const PipeDaemon&) = delete;
    PipeDaemon& operator=(const PipeDaemon&) = delete;
    ~PipeDaemon() { End(); }
    // Returns when no request is in its hands any more.
    void End() {
        if (server_ != nullptr) LIPCClose(server_);
        server_ = nullptr;
        if (thread_.joinable()) thread_.join();
    }

  private:
    LIPCEndpoint* server_ = nullptr;
    std::thread thread_;
};
