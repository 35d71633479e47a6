// Peers that do anything but a handshake: each ends itself and nothing else.
#include <gtest/gtest.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <sys/socket.h>

#include <atomic>
#include <thread>

#include "tls/peers.h"
#include "tls/transport.h"

using namespace std::chrono_literals;

namespace {

constexpr auto kLimit = 700ms;

struct Fault {
    const char* what;
    std::string says;
    enum { kStays, kCloses, kResets } then = kStays;
    bool byteByByte = false;  // again and again
    const char* failure;
    const char* ofServer = nullptr;  // where it is another one
};

// The beginning of a client's and of a server's first message, which are longer.
const std::string kHalfHello("\x16\x03\x01\x02\x00\x01\x00\x01\xfc\x03\x03half", 15);

const Fault kFaults[] = {
    {"silence", "", Fault::kStays, false, "time over"},
    {"the end", "", Fault::kCloses, false, "peer closed"},
    {"a reset", "", Fault::kResets, false, "connection broken"},
    {"the end in the middle", kHalfHello, Fault::kCloses, false, "peer closed"},
    {"half of it", kHalfHello, Fault::kStays, false, "time over"},
    {"a byte now and then", kHalfHello + std::string(400, 'x'), Fault::kStays, true, "time over"},
    {"a client's plain text", "EHLO client.test\r\n", Fault::kStays, false, "plain text?"},
    {"a server's plain text", "220 mail.test ESMTP\r\n", Fault::kCloses, false, "plain text?"},
    {"a browser", "GET / HTTP/1.1\r\n\r\n", Fault::kStays, false, "plain text?"},
    {"a record too long", "\x16\x03\x01\xff\xff" + std::string(20, 'x'), Fault::kStays, false,
     "packet length too long"},
    {"an alert", std::string("\x15\x03\x01\x00\x02\x02\x28", 7), Fault::kStays, false,
     "alert handshake failure", "unexpected message"},
};

void Play(const Fault& fault, Wire& wire, bool server, const std::atomic<bool>& over) {
    const int end = wire.End(server).Handle();
    if (!fault.byteByByte) {
        EXPECT_EQ(send(end, fault.says.data(), fault.says.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(fault.says.size()));
        // Not closed: what it has not read would make a reset of that.
        if (fault.then == Fault::kCloses) shutdown(end, SHUT_WR);
        if (fault.then == Fault::kResets) wire.Close(server, true);
        return;
    }
    for (const char each : fault.says) {
        if (over) return;
        send(end, &each, 1, MSG_NOSIGNAL);
        std::this_thread::sleep_for(20ms);
    }
}

TEST(Faults, EndOneHandshakeInTimeAndNothingElse) {
    const AnyServer any;
    const auto client = TlsClientContext();
    for (const Fault& fault : kFaults) {
        for (const bool weServe : {true, false}) {
            SCOPED_TRACE(std::string(fault.what) + (weServe ? ", to a server" : ", to a client"));
            Wire wire;
            std::atomic<bool> over{false};
            std::thread peer([&] { Play(fault, wire, !weServe, over); });
            const auto start = std::chrono::steady_clock::now();
            const CSocket ours = wire.End(weServe);
            const TlsOutcome outcome =
                weServe ? TlsAccept(ours, *any.context, Deadline(kLimit))
                        : TlsConnect(ours, *client, "mail.test", "", Deadline(kLimit));
            const auto took = std::chrono::steady_clock::now() - start;
            over = true;
            peer.join();
            EXPECT_EQ(outcome.transport, nullptr);
            const char* const failure =
                weServe && fault.ofServer != nullptr ? fault.ofServer : fault.failure;
            EXPECT_NE(outcome.failure.find(failure), std::string::npos) << outcome.failure;
            EXPECT_EQ(outcome.failure.find_first_of("\r\n"), std::string::npos);
            EXPECT_LT(took, kLimit + 5s);
            if (std::string(fault.failure) == "time over") {
                EXPECT_GE(took, kLimit);
            }
        }
        const Wire next;
        const Outcomes both = Shake(next, *any.context, *client);
        EXPECT_EQ(both.server.failure + both.client.failure, "") << "after " << fault.what;
    }
}

TEST(Faults, OfOneThreadAreNotTakenForAnothersResult) {
    const AnyServer any;
    const auto client = TlsClientContext();
    // In this thread's list of errors there is something of before.
    std::string complaint;
    EXPECT_EQ(TlsClientContext(any.files.Put("no", "garbage"), complaint), nullptr);
    ERR_raise(ERR_LIB_SSL, SSL_R_BAD_LENGTH);
    const Wire wire;
    const Outcomes both = Shake(wire, *any.context, *client);
    ASSERT_EQ(both.client.failure, "");
    ERR_raise(ERR_LIB_SSL, SSL_R_BAD_LENGTH);
    char byte;
    EXPECT_EQ(both.client.transport->ReceiveNow(&byte, 1), SOCKET_WOULD_BLOCK);
}

TEST(Faults, WhatIsNothingForUsHoldsNobody) {
    const AnyServer any;
    const Wire wire(Wire::Mode::kNonBlocking, 1 << 16);
    const Outcomes both = Shake(wire, *any.context, *ClientOf(TLS1_3_VERSION));
    ASSERT_EQ(both.client.failure, "");
    Transport& server = *both.server.transport;
    Transport& client = *both.client.transport;
    SSL* const peer = dynamic_cast<TlsTransport&>(client).Ssl();
    // New keys, and nothing but new keys, as many as go out.
    int sent = 0;
    do {
        ASSERT_EQ(SSL_key_update(peer, SSL_KEY_UPDATE_NOT_REQUESTED), 1);
        ++sent;
    } while (SSL_do_handshake(peer) == 1);
    EXPECT_GT(sent, 2000);
    char byte = 0;
    EXPECT_EQ(server.ReceiveNow(&byte, 1), SOCKET_WOULD_BLOCK);
    EXPECT_EQ(server.Wanted(), SocketWant::kRead);
    EXPECT_EQ(SocketReceiveNow(wire.Server().Handle(), &byte, 1, true), 1)
        << "it stayed until nothing more came";
    // Nothing is lost by that.
    while (SSL_do_handshake(peer) != 1) server.ReceiveNow(&byte, 1);
    while (client.SendNow("x", 1) != 1) server.ReceiveNow(&byte, 1);
    for (int tries = 0; tries < 1000 && server.ReceiveNow(&byte, 1) == SOCKET_WOULD_BLOCK; ++tries)
        std::this_thread::sleep_for(1ms);
    EXPECT_EQ(byte, 'x');
}

}  // namespace
