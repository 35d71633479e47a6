// By what a client judges.
#include "tls/trust.h"

#include <gtest/gtest.h>

#include <cstdlib>

#include "tls/peers.h"

namespace {

std::string Judge(const TlsContext& server, const std::string& caFile) {
    std::string complaint;
    const auto client = TlsClientContext(caFile, complaint);
    if (client == nullptr) return complaint;
    const Wire wire;
    return Shake(wire, server, *client, {"mail.test", "mail.test"}).client.failure;
}

TEST(Trust, FollowsItsFile) {
    const AnyServer any;
    const Files& files = any.files;
    const Party& authority = any.authority;
    const auto& server = any.context;
    const std::string file = files.Put("authorities", Party::Authority("other").Certificate());
    constexpr char kUnknown[] = "unable to get local issuer certificate";
    EXPECT_EQ(Judge(*server, file), kUnknown);
    std::string complaint;
    const auto before = TlsClientContext(file, complaint);
    EXPECT_EQ(TlsClientContext(file, complaint), before) << "read again";

    files.Put("authorities", Party::Authority("other").Certificate() + authority.Certificate());
    EXPECT_EQ(Judge(*server, file), "");
    files.Put("authorities", "garbage");
    EXPECT_EQ(Judge(*server, file), file + ": no certificate or crl found");
    files.Put("authorities", authority.Certificate());
    EXPECT_EQ(Judge(*server, file), "");
    EXPECT_EQ(Judge(*server, "/nonexistent"), "/nonexistent: No such file or directory");
    EXPECT_EQ(Judge(*server, "/dev/zero"), "/dev/zero: not a plain file");
    // So many that the first are forgotten, and read again when they are wanted.
    for (int i = 0; i < 40; ++i)
        EXPECT_EQ(Judge(*server, files.Put(std::to_string(i), authority.Certificate())), "");
    EXPECT_EQ(Judge(*server, file), "");

    // The system's store is where the library looks for it.
    EXPECT_EQ(Judge(*server, ""), kUnknown);
    setenv("SSL_CERT_FILE", file.c_str(), 1);
    EXPECT_EQ(Judge(*server, ""), "");
    unsetenv("SSL_CERT_FILE");
    EXPECT_EQ(Judge(*server, ""), kUnknown);
}

}  // namespace
