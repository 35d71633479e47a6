// Sessions that are taken up again by their tickets.
#include <gtest/gtest.h>
#include <openssl/ssl.h>

#include <atomic>
#include <thread>

#include "tls/context.h"
#include "tls/peers.h"

using namespace std::chrono_literals;

namespace {

using Session = std::unique_ptr<SSL_SESSION, OpensslFree<SSL_SESSION_free>>;

struct Visit {
    bool resumed = false;
    Session session;  // for the next one
    std::string ticket;
    std::string key;  // the name of the key that its ticket is sealed with
};

// As a client that keeps its sessions, which our own doesn't.
Visit Go(const TlsContext& server, int version, SSL_SESSION* before) {
    Visit visit;
    const Wire wire(Wire::Mode::kBlocking);
    std::thread other([&] {
        const TlsOutcome outcome = TlsAccept(wire.Server(), server, Deadline(10000ms));
        ASSERT_NE(outcome.transport, nullptr) << outcome.failure;
        // Behind the tickets of TLS 1.3, so that the client has them when it has this.
        EXPECT_EQ(outcome.transport->SendNow("x", 1), 1);
        visit.resumed = outcome.resumed;
        char byte;
        while (outcome.transport->ReceiveNow(&byte, 1) == SOCKET_WOULD_BLOCK)
            std::this_thread::sleep_for(1ms);
    });
    const OwnedSslContext context(SSL_CTX_new(TLS_client_method()));
    SSL_CTX_set_max_proto_version(context.get(), version);
    const OwnedSsl ssl(SSL_new(context.get()));
    SSL_set_fd(ssl.get(), wire.Client().Handle());
    if (before != nullptr) SSL_set_session(ssl.get(), before);
    EXPECT_EQ(SSL_connect(ssl.get()), 1);
    char byte = 0;
    EXPECT_EQ(SSL_read(ssl.get(), &byte, 1), 1);
    visit.session.reset(SSL_get1_session(ssl.get()));
    const unsigned char* ticket = nullptr;
    std::size_t length = 0;
    SSL_SESSION_get0_ticket(visit.session.get(), &ticket, &length);
    EXPECT_GT(length, 16U);
    visit.ticket.assign(ticket, ticket + length);
    visit.key = visit.ticket.substr(0, 16);
    SSL_shutdown(ssl.get());
    other.join();
    EXPECT_EQ(SSL_session_reused(ssl.get()) == 1, visit.resumed);
    return visit;
}

class Tickets : public testing::TestWithParam<int> {
  protected:
    Tickets() : identity_([this] { return std::chrono::steady_clock::time_point(now_.load()); }) {
        server_ = Put(Wish{});
    }
    std::shared_ptr<const TlsContext> Put(const Wish& wish, const char* ciphers = "") {
        return Serve(identity_, {files_.Put("pem", Party::Authority("a").Issue(wish).Both()), "",
                                 "1.2", ciphers});
    }
    Visit Again(const Visit& before) { return Go(*server_, GetParam(), before.session.get()); }

    const Files files_;
    std::atomic<std::chrono::steady_clock::duration> now_{std::chrono::hours(1000)};
    TlsIdentity identity_;
    std::shared_ptr<const TlsContext> server_;
};

TEST_P(Tickets, OpenAsLongAsTheirKeyAndOneMore) {
    const Visit first = Go(*server_, GetParam(), nullptr);
    EXPECT_FALSE(first.resumed);
    const Visit second = Again(first);
    EXPECT_TRUE(second.resumed);
    EXPECT_EQ(second.key, first.key);

    now_ = now_.load() + 61min;
    const Visit third = Again(first);
    EXPECT_TRUE(third.resumed);
    EXPECT_NE(third.key, first.key) << "not renewed";
    EXPECT_TRUE(Again(third).resumed);

    now_ = now_.load() + 60min;
    EXPECT_FALSE(Again(first).resumed);
    EXPECT_TRUE(Again(third).resumed);
    now_ = now_.load() + 24h;
    EXPECT_FALSE(Again(third).resumed);
}

// A client of TLS 1.3 throws away what it has used.
TEST_P(Tickets, AResumedConnectionHasOneOfItsOwn) {
    const Visit first = Go(*server_, GetParam(), nullptr);
    const Visit second = Again(first);
    ASSERT_TRUE(second.resumed);
    EXPECT_EQ(second.ticket != first.ticket, GetParam() == TLS1_3_VERSION);
    EXPECT_TRUE(Again(second).resumed);
}

TEST_P(Tickets, OutliveTheCertificateButNotTheRules) {
    const Visit first = Go(*server_, GetParam(), nullptr);
    const auto before = server_;
    server_ = Put({.rsa = true});
    ASSERT_NE(server_, before);
    const Visit second = Again(first);
    EXPECT_TRUE(second.resumed);
    server_ = Put({}, "HIGH");
    EXPECT_FALSE(Again(second).resumed);
}

TEST_P(Tickets, OfAnotherIdentityMeanNothing) {
    const Visit first = Go(*server_, GetParam(), nullptr);
    TlsIdentity other;
    server_ = Serve(other, {files_.Path("pem"), "", "1.2", ""});
    EXPECT_FALSE(Again(first).resumed);
}

INSTANTIATE_TEST_SUITE_P(Versions, Tickets, testing::Values(TLS1_2_VERSION, TLS1_3_VERSION));

}  // namespace
