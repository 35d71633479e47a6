// Many requests at once through a real server: each gets its reply, and what the burst has opened
// goes again.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "lipc/lipc.h"
#include "lipc/serve.h"
#include "platform/home.h"
#include "platform/task.h"
#include "support/instance.h"

namespace {

using namespace std::chrono_literals;

std::ptrdiff_t Descriptors() {
    const std::filesystem::directory_iterator begin("/proc/self/fd");
    return std::distance(begin, std::filesystem::directory_iterator());
}

bool Eventually(const std::function<bool()>& check, std::chrono::milliseconds limit = 60s) {
    const auto end = std::chrono::steady_clock::now() + limit;
    while (!check()) {
        if (std::chrono::steady_clock::now() > end) return false;
        std::this_thread::sleep_for(1ms);
    }
    return true;
}

// Echoes with two threads. While it is held it takes requests and answers none.
class EchoServer {
  public:
    EchoServer() {
        EXPECT_EQ(LIPCOpenServer(&server_, "burst"), LIPC_OK);
        for (int i = 0; i < 2; ++i) threads_.emplace_back([this] { Serve(); });
    }
    ~EchoServer() {
        LIPCClose(server_);
        for (std::thread& each : threads_) each.join();
    }
    std::atomic<bool> held{false};

  private:
    void Serve() {
        ServeUntilClosed(server_, [this](auto* connection, const void* data, auto length) {
            while (held) std::this_thread::sleep_for(1ms);
            LIPCReply(server_, connection, data, length);
        });
    }
    LIPCEndpoint* server_ = nullptr;
    std::vector<std::thread> threads_;
};

class Burst : public testing::Test {
  protected:
    Burst() {
        rlimit limit{};
        getrlimit(RLIMIT_NOFILE, &limit);
        limit.rlim_cur = limit.rlim_max;
        setrlimit(RLIMIT_NOFILE, &limit);
        EXPECT_EQ(LIPCOpenClient(&client_, "burst"), LIPC_OK);
    }
    ~Burst() override { LIPCClose(client_); }

    // As every caller of the layer, it tries again while the server has no connection ready.
    int Ask(const std::string& text, std::int32_t timeoutMs) {
        LIPCConnection* connection = nullptr;
        const void* reply = nullptr;
        std::uint32_t length = 0;
        int status = LIPC_BUSY;
        while ((status = LIPCRequest(client_, &connection, text.data(),
                                     static_cast<std::uint32_t>(text.size()), &reply, &length,
                                     timeoutMs)) == LIPC_BUSY)
            std::this_thread::sleep_for(5ms);
        if (status == LIPC_OK) {
            EXPECT_EQ(std::string(static_cast<const char*>(reply), length), text);
        }
        if (connection != nullptr) LIPCRelease(client_, connection);
        return status;
    }

    int AskInTurn(std::int32_t timeoutMs, std::uint64_t* place = nullptr) {
        LIPCConnection* connection = nullptr;
        const void* reply = nullptr;
        std::uint32_t length = 0;
        std::uint64_t turn = 0;
        const int status = LIPCRequestInTurn(client_, &connection, "x", 1, &reply, &length,
                                             timeoutMs, place == nullptr ? &turn : place);
        if (connection != nullptr) LIPCRelease(client_, connection);
        return status;
    }

    LIPCEndpoint* client_ = nullptr;
};

TEST_F(Burst, EveryRequestGetsItsReply) {
    EchoServer server;
    for (int round = 0; round < 3; ++round) {
        server.held = true;
        std::atomic<int> good{0};
        std::atomic<int> full{0};
        std::atomic<int> other{0};
        std::vector<std::thread> askers;
        for (int i = 0; i < 400; ++i) {
            askers.emplace_back([&, i] {
                const int status = Ask("request " + std::to_string(i), 100000);
                ++(status == LIPC_OK ? good : status == LIPC_NOT_THERE ? full : other);
            });
        }
        EXPECT_TRUE(Eventually([&] { return full == 400 - 257; }));
        server.held = false;
        for (std::thread& each : askers) each.join();
        EXPECT_EQ(good, 257);
        EXPECT_EQ(other, 0) << "round " << round;
    }
}

TEST_F(Burst, LeavesNoMoreThanAFewPipesOpen) {
    EchoServer server;
    EXPECT_EQ(Ask("first", 10000), LIPC_OK);
    const auto before = Descriptors();
    server.held = true;
    std::vector<std::thread> askers;
    std::atomic<int> started{0};
    for (int i = 0; i < 200; ++i)
        askers.emplace_back([&, i] {
            ++started;
            EXPECT_EQ(Ask(std::to_string(i), 100000), LIPC_OK);
        });
    // The first one's pipe is there already; the server takes the others when it comes to it.
    EXPECT_TRUE(Eventually([&] { return started == 200 && Descriptors() >= before + 199; }));
    server.held = false;
    for (std::thread& each : askers) each.join();
    // Both ends of each of 24 pipes are in this process, and what the waits keep for the next ones.
    EXPECT_TRUE(Eventually([&] { return Descriptors() <= before + 2 * 24 + 20; }))
        << Descriptors() - before;
}

// 400 at once, of whom 143 wait for a connection to come free.
TEST_F(Burst, WaitsForAFreeConnection) {
    EchoServer server;
    server.held = true;
    std::atomic<int> good{0};
    std::vector<std::thread> askers;
    for (int i = 0; i < 400; ++i)
        askers.emplace_back([&] {
            std::uint64_t place = 0;
            int status = LIPC_BUSY;
            while (status == LIPC_BUSY) status = AskInTurn(20000, &place);
            if (status == LIPC_OK) ++good;
        });
    std::uint64_t turn = 0;
    ASSERT_TRUE(Eventually([&] { return Ask("full?", 1) == LIPC_NOT_THERE; }));
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(AskInTurn(100, &turn), LIPC_BUSY);
    const auto waited = std::chrono::steady_clock::now() - start;
    EXPECT_GE(waited, 100ms);
    EXPECT_LT(waited, 2s);
    EXPECT_GT(turn, 0U);
    server.held = false;
    for (std::thread& each : askers) each.join();
    EXPECT_EQ(good, 400);
    EXPECT_EQ(AskInTurn(10000, &turn), LIPC_OK) << "an old place";
}

// The same as tasks: none that waits, for a connection or a reply, holds up those beside it.
TEST_F(Burst, TasksWaitForAFreeConnection) {
    static constexpr int kTasks = 400;
    struct Shared {
        std::function<int(std::uint64_t*)> ask;
        std::atomic<int> good{0};
        std::atomic<int> ended{0};
    } shared{[this](std::uint64_t* place) { return AskInTurn(20000, place); }};
    EchoServer server;
    server.held = true;
    for (int i = 0; i < kTasks; ++i)
        ASSERT_TRUE(platform::StartTask(
            [](void* argument) {
                auto& all = *static_cast<Shared*>(argument);
                std::uint64_t place = 0;
                int status = LIPC_BUSY;
                while (status == LIPC_BUSY) status = all.ask(&place);
                if (status == LIPC_OK) ++all.good;
                ++all.ended;
            },
            &shared));
    EXPECT_TRUE(Eventually([&] { return Ask("full?", 1) == LIPC_NOT_THERE; }));
    server.held = false;
    EXPECT_TRUE(Eventually([&] { return shared.ended == kTasks; }));
    EXPECT_EQ(shared.good, kTasks);
}

TEST_F(Burst, CloseWakesThoseWhoWaitForAConnection) {
    const EchoServer server;
    std::atomic<int> closed{0};
    std::vector<LIPCConnection*> held(257);
    const void* reply = nullptr;
    std::uint32_t length = 0;
    for (LIPCConnection*& each : held)
        ASSERT_EQ(LIPCRequest(client_, &each, "x", 1, &reply, &length, 10000), LIPC_OK);
    std::vector<std::thread> askers;
    for (int i = 0; i < 3; ++i)
        askers.emplace_back([&] {
            if (AskInTurn(-1) == LIPC_CLOSING) ++closed;
        });
    std::this_thread::sleep_for(50ms);
    LIPCClose(client_);
    for (std::thread& each : askers) each.join();
    EXPECT_EQ(closed, 3);
    ASSERT_EQ(LIPCOpenClient(&client_, "burst"), LIPC_OK);
}

TEST_F(Burst, InTurnNobodyThere) { EXPECT_EQ(AskInTurn(5000), LIPC_NOT_THERE); }

// A daemon that takes no bytes: the request is larger than what the socket holds.
TEST_F(Burst, CloseWakesASenderWhoseDaemonTakesNothing) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::snprintf(address.sun_path, sizeof address.sun_path, "%s",
                  platform::HomePath("pipes/burst").c_str());
    unlink(address.sun_path);
    const int listener = socket(AF_UNIX, SOCK_STREAM, 0);
    ASSERT_EQ(bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    ASSERT_EQ(listen(listener, 5), 0);
    std::atomic<bool> ended{false};
    std::thread sender([&] {
        EXPECT_LT(Ask(std::string(4 << 20, 'x'), -1), 0);
        ended = true;
    });
    std::this_thread::sleep_for(100ms);
    EXPECT_FALSE(ended);
    const auto start = std::chrono::steady_clock::now();
    LIPCClose(client_);
    EXPECT_LT(std::chrono::steady_clock::now() - start, 2s);
    sender.join();
    close(listener);
    unlink(address.sun_path);
    ASSERT_EQ(LIPCOpenClient(&client_, "burst"), LIPC_OK);
}

}  // namespace
