// Handshakes between our own sides: which succeed, and what is said of those that don't.
#include "tls/handshake.h"

#include <gtest/gtest.h>
#include <openssl/ssl.h>

#include "tls/peers.h"

using namespace std::chrono_literals;

namespace {

struct Case {
    const char* what;
    Wish wish{};
    TlsIdentitySettings settings{};  // the files are put in
    int version = 0;                 // the client's; 0: a client that knows an authority
    const char* clientCiphers = nullptr;
    bool otherAuthority = false;
    Call call{};
    const char* protocol = "";  // empty: it fails, with these words
    const char* server = "";
    const char* client = "";
};

TlsIdentitySettings With(const char* minVersion, const char* ciphers) {
    return {"", "", minVersion, ciphers};
}

const Wish kAddresses{.names = "IP:127.0.0.1,IP:2001:db8::1"};
const Wish kExpired{.fromDays = -9, .toDays = -1};

const Case kCases[] = {
    {.what = "TLS 1.3", .version = TLS1_3_VERSION, .protocol = "TLSv1.3"},
    {.what = "TLS 1.2", .version = TLS1_2_VERSION, .protocol = "TLSv1.2"},
    {.what = "an RSA key", .wish = {.rsa = true}, .version = TLS1_2_VERSION, .protocol = "TLSv1.2"},
    {.what = "nobody older than 1.3",
     .settings = With("1.3", ""),
     .version = TLS1_2_VERSION,
     .server = "unsupported protocol",
     .client = "alert protocol version"},
    {.what = "no cipher in common",
     .settings = With("1.2", "ECDHE-ECDSA-AES256-GCM-SHA384"),
     .version = TLS1_2_VERSION,
     .clientCiphers = "ECDHE-ECDSA-AES128-GCM-SHA256",
     .server = "no shared cipher",
     .client = "alert handshake failure"},
    {.what = "in capitals and with the root's dot",
     .call = {"mail.test.", "Mail.Test."},
     .protocol = "TLSv1.3"},
    {.what = "a name other than the host's",
     .call = {"10.0.0.1", "mail.test"},
     .protocol = "TLSv1.3"},
    {.what = "a wrong name",
     .call = {"other.test", "other.test"},
     .server = "alert",
     .client = "hostname mismatch"},
    {.what = "a name by a wildcard",
     .wish = {.names = "DNS:*.mail.test"},
     .call = {"mx1.mail.test", "mx1.mail.test"},
     .protocol = "TLSv1.3"},
    {.what = "a part of a name by a wildcard",
     .wish = {.names = "DNS:m*1.mail.test"},
     .call = {"mx1.mail.test", "mx1.mail.test"},
     .server = "alert",
     .client = "hostname mismatch"},
    {.what = "an address",
     .wish = kAddresses,
     .call = {"2001:db8::1", "2001:db8:0::1"},
     .protocol = "TLSv1.3"},
    {.what = "a wrong address",
     .wish = kAddresses,
     .call = {"127.0.0.2", "127.0.0.2"},
     .server = "alert",
     .client = "IP address mismatch"},
    {.what = "expired, judged",
     .wish = kExpired,
     .call = {"mail.test", "mail.test"},
     .server = "alert certificate expired",
     .client = "certificate has expired"},
    {.what = "expired, not judged",
     .wish = kExpired,
     .version = TLS1_3_VERSION,
     .protocol = "TLSv1.3"},
    {.what = "not good yet",
     .wish = {.fromDays = 2},
     .call = {"mail.test", "mail.test"},
     .server = "alert",
     .client = "certificate is not yet valid"},
    {.what = "an authority that the client doesn't know",
     .otherAuthority = true,
     .call = {"mail.test", "mail.test"},
     .server = "alert unknown ca",
     .client = "unable to get local issuer certificate"},
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
        TlsIdentitySettings settings = each.settings;
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
