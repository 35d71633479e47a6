// A client and what a server may do to it: cut, late, broken and missing replies, and the end.
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "lipc/lipc.h"
#include "lipc/pipe.h"
#include "lipc/raw_peer.h"
#include "support/instance.h"

namespace {

using namespace std::chrono_literals;

class Client : public testing::Test {
  protected:
    Client() { EXPECT_EQ(LIPCOpenClient(&endpoint_, "raw"), LIPC_OK); }
    ~Client() override { LIPCClose(endpoint_); }
    LIPCEndpoint* endpoint_ = nullptr;
};

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

// A free connection whose peer does something on its own meanwhile.
TEST_F(Client, WhatComesUnaskedCostsTheNextRequestNothing) {
    const RawServer server("raw");
    const struct {
        const char* name;
        std::string bytes;  // empty: the connection is closed
    } cases[] = {{"a close", ""},
                 {"a reply too many", Frame("unasked")},
                 {"junk", "this is no frame at all"},
                 {"a part of a frame", Frame("unasked").substr(0, 7)}};
    for (const auto& each : cases) {
        LIPCEndpoint* endpoint = nullptr;
        ASSERT_EQ(LIPCOpenClient(&endpoint, "raw"), LIPC_OK);
        std::atomic<bool> done{false};
        std::thread peer([&] {
            const int first = server.Accept();
            ReadBytes(first, 21);
            Write(first, Frame("first"));
            if (each.bytes.empty()) {
                close(first);
            } else {
                EXPECT_EQ(send(first, each.bytes.data(), each.bytes.size(), MSG_NOSIGNAL),
                          static_cast<ssize_t>(each.bytes.size()));
            }
            done = true;
            const int second = server.Accept();
            ReadBytes(second, 21);
            Write(second, Frame("right"));
            ReadBytes(second, 1);
            close(second);
            if (!each.bytes.empty()) close(first);
        });
        EXPECT_EQ(Ask(endpoint, "1", 5000).reply, "first") << each.name;
        while (!done) std::this_thread::sleep_for(1ms);
        EXPECT_EQ(Ask(endpoint, "2", 5000).reply, "right") << each.name;
        LIPCClose(endpoint);
        peer.join();
    }
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
