#include "lipc/lipc.h"

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

#include "lipc/pipe.h"
#include "platform/home.h"
#include "support/instance.h"
#include "support/no_descriptors.h"

namespace {

using namespace std::chrono_literals;

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

std::string ReadBytes(int descriptor, std::size_t count) {
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

std::string Frame(const std::string& payload) {
    std::string frame("VTIPC\0\0\0", 8);
    for (int twice = 0; twice < 2; ++twice) {
        for (unsigned i = 0; i < 4; ++i) frame += static_cast<char>(payload.size() >> (8 * i));
    }
    return frame + std::string(4, '\0') + payload;
}

void Write(int descriptor, const std::string& bytes) {
    ASSERT_EQ(write(descriptor, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    std::this_thread::sleep_for(5ms);  // so that the next piece is a read of its own
}

struct Exchange {
    int status = 1;
    std::string reply;
    bool null = false;
};
Exchange Ask(LIPCEndpoint* endpoint, const std::string& request, std::int32_t timeoutMs) {
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

class Client : public testing::Test {
  protected:
    Client() { EXPECT_EQ(LIPCOpenClient(&endpoint_, "raw"), LIPC_OK); }
    ~Client() override { LIPCClose(endpoint_); }
    LIPCEndpoint* endpoint_ = nullptr;
};

TEST(LIPCServer, RefusesAClientThatItHasNoDescriptorFor) {
    LIPCEndpoint* server = nullptr;
    ASSERT_EQ(LIPCOpenServer(&server, "refusing"), LIPC_OK);
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
}

TEST_F(Client, NobodyThere) { EXPECT_EQ(Ask(endpoint_, "x", 100).status, LIPC_NOT_THERE); }

TEST_F(Client, FramesToTheByteHoweverTheReplyIsCut) {
    const RawServer server("raw");
    const std::string marker("2.0LIPCNOREPLY\0", 15);
    const std::string big(10000, 'b');
    const struct {
        std::string reply;
        std::vector<std::size_t> cuts;
        bool null;
    } cases[] = {{"whole", {}, false},
                 {"header in two pieces", {7}, false},
                 {"header alone", {20}, false},
                 {"header and a part", {23}, false},
                 {marker, {}, true},
                 {std::string("2.0LIPCNOREPLX\0", 15), {}, false},
                 {marker.substr(0, 14), {}, false},
                 {big, {4096, 5000}, false}};
    std::thread peer([&] {
        const int client = server.Accept();
        for (const auto& each : cases) {
            EXPECT_EQ(ReadBytes(client, 20 + 4097), Frame(std::string(4097, 'q')));
            const std::string frame = Frame(each.reply);
            std::size_t done = 0;
            for (const std::size_t cut : each.cuts) {
                Write(client, frame.substr(done, cut - done));
                done = cut;
            }
            Write(client, frame.substr(done));
        }
        close(client);
    });
    for (const auto& each : cases) {
        const Exchange result = Ask(endpoint_, std::string(4097, 'q'), 5000);
        EXPECT_EQ(result.status, LIPC_OK);
        EXPECT_EQ(result.null, each.null);
        if (!each.null) {
            EXPECT_EQ(result.reply, each.reply);
        }
    }
    peer.join();
}

TEST_F(Client, ABadFrameCostsItsReadOnly) {
    const RawServer server("raw");
    std::thread peer([&] {
        const int client = server.Accept();
        ReadBytes(client, 21);
        Write(client, "this is no frame at all");
        Write(client, Frame("good"));
        ReadBytes(client, 1);
        close(client);
    });
    EXPECT_EQ(Ask(endpoint_, "q", 5000).reply, "good");
    LIPCClose(endpoint_);
    peer.join();
    ASSERT_EQ(LIPCOpenClient(&endpoint_, "raw"), LIPC_OK);
}

TEST_F(Client, AnInsaneLengthBreaksTheChannel) {
    const RawServer server("raw");
    std::thread peer([&] {
        const int client = server.Accept();
        ReadBytes(client, 21);
        std::string frame = Frame("x");
        frame[15] = '\x7F';
        Write(client, frame);
        ReadBytes(client, 1);
        close(client);
    });
    EXPECT_EQ(Ask(endpoint_, "q", 5000).status, LIPC_FAILED);
    peer.join();
}

TEST_F(Client, ALateReplyReachesNoOtherRequest) {
    const RawServer server("raw");
    std::atomic<int> connections{0};
    std::thread peer([&] {
        const int first = server.Accept();
        ++connections;
        ReadBytes(first, 21);
        const int second = server.Accept();
        ++connections;
        [[maybe_unused]] const ssize_t late = send(first, Frame("late").data(), 24, MSG_NOSIGNAL);
        ReadBytes(second, 21);
        Write(second, Frame("right"));
        close(first);
        ReadBytes(second, 1);
        close(second);
    });
    EXPECT_EQ(Ask(endpoint_, "1", 50).status, LIPC_TIMED_OUT);
    EXPECT_EQ(Ask(endpoint_, "2", 5000).reply, "right");
    LIPCClose(endpoint_);
    peer.join();
    EXPECT_EQ(connections, 2);
    ASSERT_EQ(LIPCOpenClient(&endpoint_, "raw"), LIPC_OK);
}

TEST_F(Client, APeerThatClosesCostsItsConnectionOnly) {
    const RawServer server("raw");
    std::thread peer([&] {
        const int first = server.Accept();
        ReadBytes(first, 21);
        close(first);
        const int second = server.Accept();
        ReadBytes(second, 21);
        Write(second, Frame("again"));
        ReadBytes(second, 1);
        close(second);
    });
    EXPECT_EQ(Ask(endpoint_, "1", 5000).status, LIPC_PEER_CLOSED);
    EXPECT_EQ(Ask(endpoint_, "2", 5000).reply, "again");
    LIPCClose(endpoint_);
    peer.join();
    ASSERT_EQ(LIPCOpenClient(&endpoint_, "raw"), LIPC_OK);
}

// Answers each connection's one request and closes behind the reply, until it is closed itself.
void AnswerAndClose(const RawServer& server, const std::atomic<bool>& ended) {
    const std::string frame = Frame("done");
    while (!ended) {
        pollfd entry{server.Listener(), POLLIN, 0};
        if (poll(&entry, 1, 20) != 1) continue;
        const int client = server.Accept();
        ReadBytes(client, 21);
        EXPECT_EQ(write(client, frame.data(), frame.size()), static_cast<ssize_t>(frame.size()));
        close(client);
    }
}

TEST_F(Client, AReplyIsGoodThoughThePeerClosesBehindIt) {
    const RawServer server("raw");
    std::atomic<bool> ended{false};
    std::thread peer([&] { AnswerAndClose(server, ended); });
    for (int i = 0; i < 50; ++i) {
        LIPCEndpoint* endpoint = nullptr;
        ASSERT_EQ(LIPCOpenClient(&endpoint, "raw"), LIPC_OK);
        const Exchange answer = Ask(endpoint, "1", 5000);
        EXPECT_EQ(answer.status, LIPC_OK) << i;
        EXPECT_EQ(answer.reply, "done") << i;
        LIPCClose(endpoint);
    }
    // A close that has been seen costs the next request nothing.
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(Ask(endpoint_, "1", 5000).reply, "done") << i;
        std::this_thread::sleep_for(500ms);
    }
    ended = true;
    peer.join();
}

TEST_F(Client, ManyAtOnceOpenNoMoreThanTheLimit) {
    const RawServer server("raw");
    std::vector<std::thread> askers;
    std::atomic<int> refused{0};
    for (int i = 0; i < 300; ++i) {
        askers.emplace_back([this, &refused] {
            if (Ask(endpoint_, "1", -1).status == LIPC_NOT_THERE) ++refused;
        });
    }
    const auto end = std::chrono::steady_clock::now() + 10s;
    while (refused < 300 - 257 && std::chrono::steady_clock::now() < end)
        std::this_thread::sleep_for(1ms);
    EXPECT_EQ(refused, 300 - 257);
    LIPCClose(endpoint_);
    for (std::thread& asker : askers) asker.join();
    EXPECT_EQ(refused, 300 - 257);
    ASSERT_EQ(LIPCOpenClient(&endpoint_, "raw"), LIPC_OK);
}

TEST_F(Client, CloseWakesThoseWhoWait) {
    const RawServer server("raw");
    std::thread waiter([this] { EXPECT_EQ(Ask(endpoint_, "1", -1).status, LIPC_FAILED); });
    const int client = server.Accept();
    ReadBytes(client, 21);
    const auto start = std::chrono::steady_clock::now();
    LIPCClose(endpoint_);
    waiter.join();
    EXPECT_LT(std::chrono::steady_clock::now() - start, 2s);
    close(client);
    ASSERT_EQ(LIPCOpenClient(&endpoint_, "raw"), LIPC_OK);
}

TEST_F(Client, ARequestInHandOutlivesTheServersEnd) {
    LIPCEndpoint* server = nullptr;
    ASSERT_EQ(LIPCOpenServer(&server, "ending"), LIPC_OK);
    LIPCEndpoint* client = nullptr;
    ASSERT_EQ(LIPCOpenClient(&client, "ending"), LIPC_OK);
    std::thread asker([&] { EXPECT_NE(Ask(client, "still here", 5000).status, LIPC_OK); });
    LIPCConnection* connection = nullptr;
    const void* data = nullptr;
    std::uint32_t length = 0;
    EXPECT_EQ(LIPCReceive(server, &connection, &data, &length, 5000), LIPC_OK);
    LIPCClose(server);
    asker.join();
    EXPECT_EQ(std::string(static_cast<const char*>(data), length), "still here");
    EXPECT_EQ(LIPCReply(server, connection, nullptr, 0), LIPC_CLOSING);
    LIPCClose(client);
}

TEST(LIPC, NullArguments) {
    EXPECT_EQ(LIPCRelease(nullptr, nullptr), LIPC_BAD_ARGUMENT);
    EXPECT_EQ(LIPCClose(nullptr), LIPC_BAD_ARGUMENT);
    EXPECT_EQ(PipeClose(kPipeTableSize), LIPC_BAD_ARGUMENT);
    EXPECT_EQ(PipeSetTimeout(3, 1), LIPC_BAD_ARGUMENT);
}

void Echo(LIPCEndpoint* server) {
    for (;;) {
        LIPCConnection* connection = nullptr;
        const void* data = nullptr;
        std::uint32_t length = 0;
        const int status = LIPCReceive(server, &connection, &data, &length, -1);
        if (status == LIPC_CLOSING) return;
        if (status == LIPC_OK) LIPCReply(server, connection, data, length);
    }
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

// A caller that holds a reply when the endpoint goes may read it to the end, and hears that it has
// gone.
TEST(Closing, LeavesAHeldReplyAlone) {
    RawServer server("held");
    LIPCEndpoint* endpoint = nullptr;
    ASSERT_EQ(LIPCOpenClient(&endpoint, "held"), LIPC_OK);
    std::thread peer([&server] {
        const int client = server.Accept();
        ReadBytes(client, 21);
        Write(client, Frame("answer"));
        ReadBytes(client, 1);
        close(client);
    });
    LIPCConnection* connection = nullptr;
    const void* reply = nullptr;
    std::uint32_t length = 0;
    ASSERT_EQ(LIPCRequest(endpoint, &connection, "x", 1, &reply, &length, -1), LIPC_OK);
    EXPECT_EQ(LIPCClose(endpoint), LIPC_OK);
    peer.join();
    EXPECT_EQ(std::string(static_cast<const char*>(reply), length), "answer");
    EXPECT_EQ(LIPCRelease(endpoint, connection), LIPC_CLOSING);
    EXPECT_EQ(LIPCRequest(endpoint, &connection, "x", 1, &reply, &length, -1), LIPC_CLOSING);
}

}  // namespace
