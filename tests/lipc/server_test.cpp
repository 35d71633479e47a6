// A server among many clients, good and bad, and the limits of both sides.
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "lipc/lipc.h"
#include "lipc/pipe.h"
#include "lipc/raw_peer.h"
#include "lipc/serve.h"
#include "support/instance.h"
#include "support/no_descriptors.h"

namespace {

using namespace std::chrono_literals;

void Echo(LIPCEndpoint* server) {
    ServeUntilClosed(server, [server](auto* connection, const void* data, auto length) {
        LIPCReply(server, connection, data, length);
    });
}

TEST(LIPCServer, RefusesAClientThatItHasNoDescriptorFor) {
    LIPCEndpoint* server = nullptr;
    ASSERT_EQ(LIPCOpenServer(&server, "refusing"), LIPC_OK);
    std::thread worker(Echo, server);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::string path = RawServer::platform_path("refusing");
    std::memcpy(address.sun_path, path.c_str(), path.size());
    const auto* name = reinterpret_cast<const sockaddr*>(&address);
    const int clients[] = {socket(AF_UNIX, SOCK_STREAM, 0), socket(AF_UNIX, SOCK_STREAM, 0)};
    pollfd entry{clients[0], POLLIN, 0};
    {
        const NoDescriptors none;
        ASSERT_EQ(connect(clients[0], name, sizeof address), 0);
        EXPECT_EQ(poll(&entry, 1, 5000), 1) << "it waits for something that nothing tells of";
    }
    ASSERT_EQ(connect(clients[1], name, sizeof address), 0);
    entry.fd = clients[1];
    EXPECT_EQ(poll(&entry, 1, 200), 0) << "there is room again";
    for (const int each : clients) close(each);
    LIPCClose(server);
    worker.join();
}

TEST(LIPC, ManyThreadsThroughAServerThatRestarts) {
    LIPCEndpoint* client = nullptr;
    ASSERT_EQ(LIPCOpenClient(&client, "echo"), LIPC_OK);
    std::atomic<bool> stop{false};
    std::atomic<int> good{0};
    std::atomic<int> wrong{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; ++i) {
        threads.emplace_back([&, i] {
            for (int n = 0; !stop; ++n) {
                const std::string text = std::to_string(i) + ":" + std::to_string(n) +
                                         std::string(static_cast<std::size_t>(n % 9000), 'x');
                const Exchange result = Ask(client, text, 5000);
                if (result.status == LIPC_OK) ++(result.reply == text ? good : wrong);
                if (result.status == LIPC_NOT_THERE) std::this_thread::sleep_for(1ms);
            }
        });
    }
    for (int round = 0; round < 3; ++round) {
        LIPCEndpoint* server = nullptr;
        ASSERT_EQ(LIPCOpenServer(&server, "echo"), LIPC_OK);
        LIPCEndpoint* second = nullptr;
        EXPECT_EQ(round == 0 ? LIPCOpenServer(&second, "other") : LIPC_OK, LIPC_OK);
        if (second != nullptr) LIPCClose(second);
        std::thread a(Echo, server);
        std::thread b(Echo, server);
        const int before = good;
        const auto end = std::chrono::steady_clock::now() + 20s;
        while (good < before + 500 && std::chrono::steady_clock::now() < end)
            std::this_thread::sleep_for(1ms);
        EXPECT_GE(good, before + 500);
        LIPCClose(server);
        a.join();
        b.join();
    }
    stop = true;
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(wrong, 0);
    LIPCClose(client);
}

TEST(LIPC, AServerSurvivesJunkAndHalfFrames) {
    LIPCEndpoint* server = nullptr;
    ASSERT_EQ(LIPCOpenServer(&server, "junk"), LIPC_OK);
    std::thread worker(Echo, server);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::string path = RawServer::platform_path("junk");
    std::memcpy(address.sun_path, path.c_str(), path.size());
    std::vector<int> open;
    for (int i = 0; i < 400; ++i) {  // more than the server has connections
        const int peer = socket(AF_UNIX, SOCK_STREAM, 0);
        ASSERT_EQ(connect(peer, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        const std::string bytes =
            i % 3 == 0 ? "junk" : Frame("half").substr(0, static_cast<std::size_t>(i % 23));
        [[maybe_unused]] const ssize_t sent = send(peer, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (i % 40 == 1) {
            open.push_back(peer);
        } else {
            close(peer);
        }
    }
    LIPCEndpoint* client = nullptr;
    ASSERT_EQ(LIPCOpenClient(&client, "junk"), LIPC_OK);
    Exchange last = Ask(client, "still here", 5000);
    // The backlog may be full for a moment: callers try again then.
    for (int i = 0; i < 100 && last.status == LIPC_BUSY; ++i) {
        std::this_thread::sleep_for(10ms);
        last = Ask(client, "still here", 5000);
    }
    EXPECT_EQ(last.status, LIPC_OK);
    EXPECT_EQ(last.reply, "still here");
    LIPCClose(client);
    LIPCClose(server);
    worker.join();
    for (const int peer : open) close(peer);
}

// A server that takes connections and never answers.
class Limits : public testing::Test {
  protected:
    Limits() : server_("limits") {
        rlimit limit{};
        getrlimit(RLIMIT_NOFILE, &limit);
        limit.rlim_cur = limit.rlim_max;
        setrlimit(RLIMIT_NOFILE, &limit);
    }
    RawServer server_;
};

TEST_F(Limits, RequestsInFlight) {
    LIPCEndpoint* endpoint = nullptr;
    ASSERT_EQ(LIPCOpenClient(&endpoint, "limits"), LIPC_OK);
    std::vector<LIPCConnection*> held;
    const void* reply = nullptr;
    std::uint32_t length = 0;
    const auto ask = [&](LIPCConnection** connection) {
        return LIPCRequest(endpoint, connection, "x", 1, &reply, &length, 1);
    };
    for (int i = 0; i < 257; ++i) {
        LIPCConnection* connection = nullptr;
        ASSERT_EQ(ask(&connection), LIPC_TIMED_OUT) << i;
        held.push_back(connection);
    }
    LIPCConnection* more = nullptr;
    EXPECT_EQ(ask(&more), LIPC_NOT_THERE);
    EXPECT_EQ(more, nullptr);
    EXPECT_EQ(LIPCRelease(endpoint, held.back()), LIPC_OK);
    EXPECT_EQ(ask(&held.back()), LIPC_TIMED_OUT) << "one has become free";
    for (LIPCConnection* connection : held) LIPCRelease(endpoint, connection);
    EXPECT_EQ(LIPCClose(endpoint), LIPC_OK);
}

TEST_F(Limits, ChannelsOfTheProcess) {
    std::vector<int> channels;
    for (int i = 0; i < kPipeTableSize; ++i) channels.push_back(PipeOpen("limits", 0));
    for (int i = 0; i < kPipeTableSize; ++i) ASSERT_EQ(channels[static_cast<std::size_t>(i)], i);
    EXPECT_EQ(PipeOpen("limits", 0), LIPC_TABLE_FULL);
    EXPECT_EQ(PipeClose(kPipeTableSize), LIPC_BAD_ARGUMENT);
    EXPECT_EQ(PipeClose(channels[500]), LIPC_OK);
    EXPECT_EQ(PipeSetTimeout(500, 1), LIPC_BAD_ARGUMENT) << "closed";
    EXPECT_EQ(PipeOpen("limits", 0), 500) << "the first empty slot";
    for (const int channel : channels) EXPECT_EQ(PipeClose(channel), LIPC_OK);
}

}  // namespace
