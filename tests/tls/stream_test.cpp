// A Stream whose bytes pass through TLS.
#include "net/stream.h"

#include <gtest/gtest.h>
#include <openssl/ssl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <functional>
#include <future>
#include <thread>

#include "platform/task.h"
#include "tls/peers.h"
#include "tls/transport.h"

using namespace std::chrono_literals;

namespace {

using Clock = std::chrono::steady_clock;

std::string Noise(std::size_t size) {
    std::string text(size, '\0');
    unsigned state = 1;
    for (char& each : text) each = static_cast<char>((state = state * 1103515245U + 12345U) >> 16);
    return text;
}

std::string ReadAll(Stream& stream, std::size_t size) {
    std::string text;
    std::array<char, 3000> block;
    while (text.size() < size) {
        const int count = stream.Read(block.data(), static_cast<int>(block.size()), 10s);
        if (count < 1) break;
        text.append(block.data(), static_cast<std::size_t>(count));
    }
    return text;
}

class SecuredStream : public testing::TestWithParam<int> {};

TEST_P(SecuredStream, CarriesMuchBothWaysThroughSmallBuffers) {
    for (const Wire::Mode mode : {Wire::Mode::kNonBlocking, Wire::Mode::kBlocking}) {
        Secured both(GetParam(), mode, 4096);
        const std::string up = Noise(1 << 20);
        const std::string down = Noise(700001);
        std::thread peer([&] {
            EXPECT_TRUE(ReadAll(both.server, up.size()) == up);
            EXPECT_TRUE(both.server.Send(down));
        });
        EXPECT_TRUE(both.client.Send(up));
        EXPECT_TRUE(ReadAll(both.client, down.size()) == down);
        peer.join();
    }
}

TEST_P(SecuredStream, OnlyTheLastWordIsAnEnd) {
    struct Case {
        const char* what;
        bool goodbye;
        bool reset;
        int end;
    };
    for (const Case& each : {Case{"said", true, false, 0},
                             {"cut off", false, false, -1},
                             {"reset", false, true, -1}}) {
        for (const bool server : {true, false}) {
            SCOPED_TRACE(each.what);
            Secured both(GetParam());
            Stream& ours = server ? both.server : both.client;
            Stream& peers = server ? both.client : both.server;
            EXPECT_FALSE(ours.PeerGone());
            EXPECT_TRUE(peers.Send("half"));
            EXPECT_EQ(ReadAll(ours, 4), "half");
            // What the peer has not read would make a reset of its end.
            EXPECT_FALSE(peers.PeerGone());
            if (each.goodbye) peers.Detach();
            both.wire.Close(!server, each.reset);
            if (!each.reset) {
                EXPECT_EQ(ours.WaitReadable(10s), Stream::Wait::kReady);
            }
            EXPECT_TRUE(ours.PeerGone());
            char byte;
            EXPECT_EQ(ours.Read(&byte, 1, 10s), each.end);
            EXPECT_EQ(ours.Read(&byte, 1, 10s), each.end) << "the second time";
            EXPECT_TRUE(ours.PeerGone());
            // A connection without its end raises no signal, and doesn't hold its user.
            while (ours.Send(std::string(1 << 16, 'x'))) {
            }
            ours.Detach();
        }
    }
}

TEST_P(SecuredStream, ATicketIsNothingToRead) {
    Secured both(GetParam());
    // The server's tickets of TLS 1.3 are there by now.
    const auto start = Clock::now();
    EXPECT_EQ(both.client.WaitReadable(200ms), Stream::Wait::kTimeOver);
    EXPECT_GE(Clock::now() - start, 200ms);
    EXPECT_EQ(both.client.WaitReadable(0ms), Stream::Wait::kTimeOver);
    EXPECT_FALSE(both.client.PeerGone());
    EXPECT_TRUE(both.server.Send("x"));
    EXPECT_EQ(both.client.WaitReadable(10s), Stream::Wait::kReady);
    // What TLS has read ahead counts as there, though the socket has nothing more.
    EXPECT_TRUE(both.server.Send(std::string(10000, 'y')));
    EXPECT_EQ(ReadAll(both.client, 5000).size() % 1000, 1U);
    EXPECT_EQ(both.client.WaitReadable(0ms), Stream::Wait::kReady);
}

TEST_P(SecuredStream, EndingTakesTheLastReplyThere) {
    Secured both(GetParam());
    EXPECT_TRUE(both.client.Send(Noise(300000)));
    EXPECT_TRUE(both.server.Queue("221 bye\r\n"));
    std::thread peer([&] {
        EXPECT_EQ(ReadAll(both.client, 100), "221 bye\r\n");
        char byte;
        EXPECT_EQ(both.client.Read(&byte, 1, 10s), 0);
        both.wire.Close(false);
    });
    both.server.EndSending();
    peer.join();
    both.wire.Close(true);
}

TEST_P(SecuredStream, ChangedOnTheWayIsBroken) {
    Secured both(GetParam());
    EXPECT_TRUE(both.client.Send("text"));
    std::array<char, 200> record;
    int count = SocketReceiveNow(both.wire.Server().Handle(), record.data(), 200, true);
    for (int tries = 0; count < 1 && tries < 100; ++tries) {
        std::this_thread::sleep_for(10ms);
        count = SocketReceiveNow(both.wire.Server().Handle(), record.data(), 200, true);
    }
    ASSERT_GT(count, 5);
    EXPECT_EQ(ReadAll(both.server, 4), "text");
    // The same record once more is none that comes next.
    EXPECT_EQ(SocketSendNow(both.wire.Client().Handle(), record.data(), count), count);
    char byte;
    EXPECT_EQ(both.server.Read(&byte, 1, 10s), -1);
    EXPECT_EQ(both.server.Read(&byte, 1, 10s), -1);
    EXPECT_FALSE(both.server.Send("x"));
}

TEST_P(SecuredStream, BytesOfARecordCountForNoArrival) {
    Secured both(GetParam());
    // The beginning of a record of 1000 bytes, and a byte of it now and then.
    const std::string record = std::string("\x17\x03\x03\x03\xe8", 5) + std::string(100, 'x');
    std::atomic<bool> over{false};
    std::thread peer([&] {
        for (const char each : record) {
            if (over) return;
            SocketSendNow(both.wire.Client().Handle(), &each, 1);
            std::this_thread::sleep_for(50ms);
        }
    });
    const auto start = Clock::now();
    EXPECT_EQ(both.server.WaitReadable(500ms), Stream::Wait::kTimeOver);
    char byte;
    EXPECT_EQ(both.server.Read(&byte, 1, 500ms), -1);
    both.server.SetLimit(1);
    std::string_view line;
    EXPECT_EQ(both.server.ReadLine(line, 100), Stream::Line::kFailed);
    EXPECT_LT(Clock::now() - start, 12s);
    EXPECT_GE(Clock::now() - start, 2s);
    over = true;
    peer.join();
}

// Between two connections of a session to its server the number may become a stranger's.
TEST_P(SecuredStream, WhatIsDetachedTouchesTheNumberNoMore) {
    Secured both(GetParam());
    both.server.Detach();
    const int number = both.wire.Server().Handle();
    Wire other;
    ASSERT_EQ(dup2(other.Server().Handle(), number), number);
    EXPECT_EQ(CSocket(other.Client()).SendAll("theirs\r\n", 8), 1);
    both.server.Detach();
    char byte;
    EXPECT_EQ(both.server.Read(&byte, 1, 0ms), -1);
    EXPECT_FALSE(both.server.Send("x"));
    CSocket reader = other.Server();
    char line[16];
    int length = 0;
    EXPECT_EQ(reader.ReadLine(line, length, sizeof line, 1), 1);
    EXPECT_STREQ(line, "theirs\r\n");
    EXPECT_EQ(SocketReceiveNow(other.Client().Handle(), &byte, 1, false), SOCKET_WOULD_BLOCK);
}

// So many that the library is not let through all of them at once: what it has left is still there
// for a task, which hears of each arrival once only.
TEST(SecuredStreams, BehindManyTicketsATextIsFound) {
    constexpr int kTickets = 800;
    AnyServer server;
    Wire wire(Wire::Mode::kNonBlocking, 1 << 20);
    Outcomes both = Shake(wire, *server.context, *ClientOf(TLS1_3_VERSION));
    SSL* const ssl = dynamic_cast<TlsTransport&>(*both.server.transport).Ssl();
    for (int i = 0; i < kTickets; ++i) {
        ASSERT_EQ(SSL_new_session_ticket(ssl), 1);
        ASSERT_EQ(SSL_do_handshake(ssl), 1);
    }
    ASSERT_EQ(both.server.transport->SendNow("text", 4), 4);
    std::promise<std::string> seen;
    const auto read = [&] {
        Stream client;
        client.Attach(wire.Client());
        client.Secure(std::move(both.client.transport));
        seen.set_value(ReadAll(client, 4));
        client.Detach();
    };
    const std::function<void()> work = read;
    ASSERT_TRUE(platform::StartTask(
        [](void* argument) { (*static_cast<const std::function<void()>*>(argument))(); },
        const_cast<std::function<void()>*>(&work)));
    EXPECT_EQ(seen.get_future().get(), "text");
}

INSTANTIATE_TEST_SUITE_P(Versions, SecuredStream, testing::Values(TLS1_2_VERSION, TLS1_3_VERSION));

}  // namespace
