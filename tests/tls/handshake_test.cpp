// Handshakes between our own sides: which succeed, and what is said of those that don't.
#include "tls/handshake.h"

#include <gtest/gtest.h>
#include <openssl/ssl.h>

#include "tls/peers.h"

using namespace std::chrono_literals;

namespace {

struct Case {
    const char* what;
    const char* protocol;  // empty: it fails, with these words
    const char* server = "";
    const char* client = "";
    Call call{};
    Wish wish{};
    int version = 0;  // the client's; 0: a client that knows an authority
    const char* minVersion = "1.2";
    const char* ciphers = "";
    const char* clientCiphers = nullptr;
    bool otherAuthority = false;
};

const Wish kAddresses{.names = "IP:127.0.0.1,IP:2001:db8::1"};
const Wish kExpired{.fromDays = -9, .toDays = -1};
const Call kMail{"mail.test", "mail.test"};
const Call kMx{"mx1.mail.test", "mx1.mail.test"};
constexpr char kNoIssuer[] = "unable to get local issuer certificate";

const Case kCases[] = {
    {"TLS 1.3", "TLSv1.3", "", "", {}, {}, TLS1_3_VERSION},
    {"TLS 1.2", "TLSv1.2", "", "", {}, {}, TLS1_2_VERSION},
    {"an RSA key", "TLSv1.2", "", "", {}, {.rsa = true}, TLS1_2_VERSION},
    {"nobody older", "", "unsupported protocol", "version", {}, {}, TLS1_2_VERSION, "1.3"},
    {"no cipher in common",
     "",
     "no shared cipher",
     "handshake failure",
     {},
     {},
     TLS1_2_VERSION,
     "1.2",
     "ECDHE-ECDSA-AES256-GCM-SHA384",
     "ECDHE-ECDSA-AES128-GCM-SHA256"},
    {"capitals and the root's dot", "TLSv1.3", "", "", {"mail.test.", "Mail.Test."}},
    {"a name other than the host's", "TLSv1.3", "", "", {"10.0.0.1", "mail.test"}},
    {"a wrong name", "", "alert", "hostname mismatch", {"other.test", "other.test"}},
    {"a wildcard", "TLSv1.3", "", "", kMx, {.names = "DNS:*.mail.test"}},
    {"a part of one", "", "alert", "hostname mismatch", kMx, {.names = "DNS:m*1.mail.test"}},
    {"an address", "TLSv1.3", "", "", {"2001:db8::1", "2001:db8:0::1"}, kAddresses},
    {"a wrong one", "", "alert", "IP address mismatch", {"127.0.0.2", "127.0.0.2"}, kAddresses},
    {"expired, judged", "", "alert certificate expired", "certificate has expired", kMail,
     kExpired},
    {"expired, not judged", "TLSv1.3", "", "", {}, kExpired, TLS1_3_VERSION},
    {"not good yet", "", "alert", "certificate is not yet valid", kMail, {.fromDays = 2}},
    {"an unknown authority", "", "unknown ca", kNoIssuer, kMail, {}, 0, "1.2", "", nullptr, true},
};

void Expect(const TlsOutcome& outcome, const char* protocol, const char* failure) {
    EXPECT_EQ(outcome.protocol, protocol);
    EXPECT_EQ(outcome.transport != nullptr, *protocol != '\0');
    EXPECT_EQ(outcome.cipher.empty(), *protocol == '\0');
    EXPECT_EQ(outcome.failure.empty(), *protocol != '\0');
    EXPECT_NE(outcome.failure.find(failure), std::string::npos) << outcome.failure;
}

TEST(Handshake, SucceedsOrSaysWhy) {
    const Files files;
    const Party authority = Party::Authority("authority");
    const Party other = Party::Authority("other");
    const std::string known = files.Put("authorities", authority.Certificate());
    for (const Case& each : kCases) {
        SCOPED_TRACE(each.what);
        const Party party = (each.otherAuthority ? other : authority).Issue(each.wish);
        TlsIdentity identity;
        TlsIdentitySettings settings{"", "", each.minVersion, each.ciphers};
        settings.certificate = files.Put("certificate", party.Certificate());
        settings.key = files.Put("key", party.Key());
        identity.Configure(settings);
        std::string complaint;
        const auto server = identity.Context(complaint);
        ASSERT_NE(server, nullptr) << complaint;
        const auto client = each.version == 0 ? TlsClientContext(known, complaint)
                                              : ClientOf(each.version, each.clientCiphers);
        ASSERT_NE(client, nullptr) << complaint;
        for (const Wire::Mode mode : {Wire::Mode::kNonBlocking, Wire::Mode::kBlocking}) {
            const Wire wire(mode);
            const Outcomes both = Shake(wire, *server, *client, each.call);
            Expect(both.server, each.protocol, each.server);
            Expect(both.client, each.protocol, each.client);
            EXPECT_FALSE(both.client.resumed);
        }
    }
}

TEST(Handshake, TheServersNameIsSaidUnlessItIsAnAddress) {
    const auto client = ClientOf(TLS1_3_VERSION);
    // A name in the first message of the client, which is in plain text.
    for (const auto& [host, said] :
         {std::pair("mail.test", "mail.test"), std::pair("mail.test.", "mail.test"),
          std::pair("192.0.2.1", ""), std::pair("2001:db8::1", "")}) {
        SCOPED_TRACE(host);
        const Wire wire;
        const TlsOutcome outcome = TlsConnect(wire.Client(), *client, host, "", Deadline(50ms));
        EXPECT_EQ(outcome.failure, "time over");
        std::string hello(4096, '\0');
        const int count = SocketReceiveNow(wire.Server().Handle(), hello.data(), 4096, false);
        ASSERT_GT(count, 0);
        hello.resize(static_cast<std::size_t>(count));
        // type host name, two bytes of length, and it
        const std::string wanted =
            std::string("\0\0", 2) + static_cast<char>(std::string(said).size()) + said;
        EXPECT_EQ(hello.find(wanted) != std::string::npos && *said != '\0', *said != '\0');
        EXPECT_EQ(hello.find(host) != std::string::npos, std::string(host) == said);
    }
    const Wire wire;
    EXPECT_EQ(TlsConnect(wire.Client(), *client, std::string(300, 'x'), "", Deadline(50ms)).failure,
              "no name of a host");
    EXPECT_EQ(TlsConnect(wire.Client(), *client, "", ".", Deadline(50ms)).failure,
              "no name to judge by");
}

}  // namespace
