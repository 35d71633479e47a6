// The threads that serve one endpoint together: who is woken for what, and what they do for clients
// that make them wait.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <fstream>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "lipc/lipc.h"
#include "lipc/raw_peer.h"
#include "lipc/serve.h"
#include "support/instance.h"

namespace {

using namespace std::chrono_literals;

int Connect(const std::string& name) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::string path = RawServer::platform_path(name);
    std::memcpy(address.sun_path, path.c_str(), path.size());
    const int peer = socket(AF_UNIX, SOCK_STREAM, 0);
    EXPECT_EQ(connect(peer, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    return peer;
}

class Serving : public testing::Test {
  protected:
    Serving() {
        EXPECT_EQ(LIPCOpenServer(&server_, "serving"), LIPC_OK);
        EXPECT_EQ(LIPCOpenClient(&client_, "serving"), LIPC_OK);
    }
    ~Serving() override {
        LIPCClose(client_);
        LIPCClose(server_);
        for (std::thread& each : threads_) each.join();
    }
    // Threads that answer each request with `reply`, or with itself if that is empty.
    void Serve(int threads, const std::string& reply = "") {
        for (int i = 0; i < threads; ++i) threads_.emplace_back([this, reply] { Loop(reply); });
    }
    // How often those threads have slept.
    long Sleeps() {
        const std::lock_guard lock(mutex_);
        long sleeps = 0;
        for (const pid_t each : ids_) {
            std::ifstream status("/proc/self/task/" + std::to_string(each) + "/status");
            for (std::string line; std::getline(status, line);) {
                if (line.starts_with("voluntary_ctxt_switches:"))
                    sleeps += std::stol(line.substr(line.find(':') + 1));
            }
        }
        return sleeps;
    }

    LIPCEndpoint* server_ = nullptr;
    LIPCEndpoint* client_ = nullptr;

  private:
    void Loop(const std::string& reply) {
        {
            const std::lock_guard lock(mutex_);
            ids_.push_back(gettid());
        }
        ServeUntilClosed(server_, [&](auto* connection, const void* data, auto length) {
            if (reply.empty())
                LIPCReply(server_, connection, data, length);
            else
                LIPCReply(server_, connection, reply.data(),
                          static_cast<std::uint32_t>(reply.size()));
        });
    }
    std::mutex mutex_;
    std::vector<pid_t> ids_;  // guarded by mutex_
    std::vector<std::thread> threads_;
};

TEST_F(Serving, OneRequestWakesOneThread) {
    constexpr int kRequests = 200;
    Serve(8);
    EXPECT_EQ(Ask(client_, "first", 5000).reply, "first");
    std::this_thread::sleep_for(50ms);
    const long before = Sleeps();
    for (int i = 0; i < kRequests; ++i) ASSERT_EQ(Ask(client_, "x", 5000).reply, "x");
    std::this_thread::sleep_for(50ms);
    EXPECT_LE(Sleeps() - before, 2 * kRequests) << "all of them would be 8 a request";
}

// More than a socket holds, both ways.
TEST_F(Serving, LargeRequestsAndReplies) {
    Serve(2);
    std::vector<std::thread> askers;
    for (char each = 'a'; each < 'g'; ++each)
        askers.emplace_back([this, each] {
            const std::string text(3000000, each);
            for (int i = 0; i < 3; ++i) {
                const Exchange result = Ask(client_, text, 20000);
                EXPECT_EQ(result.status, LIPC_OK);
                EXPECT_TRUE(result.reply == text);
            }
        });
    for (std::thread& each : askers) each.join();
}

// Every thread that serves has a reply that its client doesn't take yet.
TEST_F(Serving, RepliesThatWaitForTheirClients) {
    const std::string reply(2000000, 'r');
    Serve(2, reply);
    std::vector<int> peers;
    for (int i = 0; i < 4; ++i) {
        peers.push_back(Connect("serving"));
        Write(peers.back(), Frame("q"));
    }
    std::this_thread::sleep_for(100ms);
    for (const int each : peers) {
        EXPECT_TRUE(ReadBytes(each, 20 + reply.size()) == Frame(reply));
        close(each);
    }
    EXPECT_EQ(Ask(client_, "x", 5000).reply, reply);
}

// Nobody serves while the request is being sent: it goes on as long as somebody waits for its
// reply.
TEST_F(Serving, ARequestThatIsLateGoesOn) {
    const std::string text(4000000, 't');
    LIPCConnection* connection = nullptr;
    const void* reply = nullptr;
    std::uint32_t length = 0;
    ASSERT_EQ(LIPCRequest(client_, &connection, text.data(),
                          static_cast<std::uint32_t>(text.size()), &reply, &length, 50),
              LIPC_TIMED_OUT);
    EXPECT_EQ(LIPCWaitReply(client_, connection, &reply, &length, 50), LIPC_TIMED_OUT);
    Serve(1);
    EXPECT_EQ(LIPCWaitReply(client_, connection, &reply, &length, 10000), LIPC_OK);
    EXPECT_TRUE(std::string(static_cast<const char*>(reply), length) == text);
    LIPCRelease(client_, connection);
    EXPECT_EQ(Ask(client_, "again", 5000).reply, "again");
}

// A peer's second request comes while its first one is in hand, and whoever answers that one serves
// no further.
TEST_F(Serving, ASecondRequestBehindOneInHandIsServed) {
    const int peer = Connect("serving");
    Write(peer, Frame("one"));
    LIPCConnection* connection = nullptr;
    const void* data = nullptr;
    std::uint32_t length = 0;
    ASSERT_EQ(LIPCReceive(server_, &connection, &data, &length, 5000), LIPC_OK);
    Serve(1);
    Write(peer, Frame("two"));
    std::this_thread::sleep_for(50ms);
    EXPECT_EQ(LIPCReply(server_, connection, data, length), LIPC_OK);
    EXPECT_EQ(ReadBytes(peer, 46), Frame("one") + Frame("two"));
    close(peer);
}

// Requests of clients that have come while nobody served, and gone again, cost the others nothing.
TEST_F(Serving, ClientsThatHaveComeMeanwhile) {
    std::vector<int> gone;
    for (int i = 0; i < 100; ++i) {
        gone.push_back(Connect("serving"));
        const std::string bytes = Frame("q").substr(0, static_cast<std::size_t>(i % 22));
        EXPECT_GE(send(gone.back(), bytes.data(), bytes.size(), 0), 0);
    }
    for (const int each : gone) close(each);
    std::vector<std::thread> askers;
    for (int i = 0; i < 100; ++i)
        askers.emplace_back([this, i] {
            const std::string text = std::to_string(i);
            const Exchange result = Ask(client_, text, 20000);
            EXPECT_EQ(result.status, LIPC_OK);
            EXPECT_EQ(result.reply, text);
        });
    std::this_thread::sleep_for(50ms);
    Serve(3);
    for (std::thread& each : askers) each.join();
}

// One thread gives the connection up, for its reply finds no reader, while another takes what still
// comes on it.
TEST_F(Serving, ClientsThatSendOnAndReadNothing) {
    Serve(3);
    const std::string much = Frame(std::string(4000000, 'm'));
    for (int i = 0; i < 50; ++i) {
        const int peer = Connect("serving");
        shutdown(peer, SHUT_RD);
        const std::string bytes = Frame("q") + much;
        for (std::size_t sent = 0; sent < bytes.size();) {
            const ssize_t count =
                send(peer, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
            if (count <= 0) break;
            sent += static_cast<std::size_t>(count);
        }
        close(peer);
    }
    EXPECT_EQ(Ask(client_, "x", 5000).reply, "x");
}

TEST_F(Serving, ALimitEndsTheWaitOfOneThread) {
    LIPCConnection* connection = nullptr;
    const void* data = nullptr;
    std::uint32_t length = 0;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(LIPCReceive(server_, &connection, &data, &length, 50), LIPC_TIMED_OUT);
    EXPECT_GE(std::chrono::steady_clock::now() - start, 50ms);
    EXPECT_EQ(LIPCReceive(server_, &connection, &data, &length, 0), LIPC_TIMED_OUT);
}

}  // namespace
