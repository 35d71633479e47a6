// The certificate that clients see: what is taken, what is refused, and what stays then.
#include "tls/identity.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "tls/peers.h"

namespace {

class Identity : public testing::Test {
  protected:
    Identity() : authority_(Party::Authority("authority")) {
        std::string complaint;
        client_ = TlsClientContext(files_.Put("authorities", authority_.Certificate()), complaint);
    }

    // The next context and what is said of it.
    std::shared_ptr<const TlsContext> Next() { return identity_.Context(said_); }
    // Whether a client finds the name in the certificate that it is shown.
    bool Shows(const TlsContext& context, const std::string& name) {
        const Wire wire;
        return Shake(wire, context, *client_, {name, name}).client.failure.empty();
    }
    void Use(const std::string& certificate, const std::string& key = "") {
        identity_.Configure({certificate, key, "1.2", ""});
    }
    std::string Issue(const std::string& file, const char* names, int toDays = 30) {
        return files_.Put(file, authority_.Issue({.names = names, .toDays = toDays}).Both());
    }

    Files files_;
    Party authority_;
    std::shared_ptr<const TlsContext> client_;
    TlsIdentity identity_;
    std::string said_;
};

TEST_F(Identity, FollowsItsFile) {
    const std::string file = Issue("pem", "DNS:first.test");
    Use(file);
    const auto first = Next();
    ASSERT_NE(first, nullptr) << said_;
    EXPECT_TRUE(Shows(*first, "first.test"));
    EXPECT_EQ(Next(), first);

    Issue("pem", "DNS:second.test");
    const auto second = Next();
    EXPECT_EQ(said_, "");
    EXPECT_TRUE(Shows(*second, "second.test"));
    EXPECT_TRUE(Shows(*first, "first.test"));  // for those that began with it

    files_.Put("pem", "no certificate");
    EXPECT_EQ(Next(), second);
    EXPECT_EQ(said_, file + ": no start line");
    EXPECT_EQ(Next(), second);
    EXPECT_EQ(said_, "");
    std::filesystem::remove(file);
    EXPECT_EQ(Next(), second);
    EXPECT_EQ(said_, file + ": No such file or directory");

    Issue("pem", "DNS:third.test");
    const auto third = Next();
    EXPECT_EQ(said_, "");
    EXPECT_TRUE(Shows(*third, "third.test"));
}

TEST_F(Identity, SeesAFileThatWasPutInItsPlace) {
    const std::string file = Issue("pem", "DNS:mail1.test");
    const std::string other = Issue("other", "DNS:mail2.test");
    // Of one size and time: nothing tells them apart but that it is another one.
    for (const auto& each : {file, other})
        std::filesystem::resize_file(
            each, std::max(std::filesystem::file_size(file), std::filesystem::file_size(other)));
    std::filesystem::last_write_time(other, std::filesystem::last_write_time(file));
    Use(file);
    EXPECT_TRUE(Shows(*Next(), "mail1.test"));
    std::filesystem::rename(other, file);
    EXPECT_TRUE(Shows(*Next(), "mail2.test"));
}

TEST_F(Identity, KeepsTheOldOneUntilTheNewOneProvesGood) {
    const Party one = authority_.Issue({.names = "DNS:one.test"});
    const Party two = authority_.Issue({.names = "DNS:two.test"});
    const std::string certificate = files_.Put("certificate", one.Certificate());
    const std::string key = files_.Put("key", one.Key());
    Use(certificate, key);
    const auto first = Next();
    ASSERT_NE(first, nullptr) << said_;
    const struct {
        const char* what;
        TlsIdentitySettings settings;
        std::string said;
    } broken[] = {
        {"no such certificate",
         {"/nonexistent", key, "1.2", ""},
         "/nonexistent: No such file or directory"},
        {"a directory", {files_.Path(""), key, "1.2", ""}, files_.Path("") + ": not a plain file"},
        {"ciphers that nobody knows",
         {certificate, key, "1.2", "NOTHING"},
         "NOTHING: no cipher match"},
        {"a name that would write lines",
         {"/no\n\x1b[1m", key, "1.2", ""},
         "/no??[1m: No such file or directory"},
        {"a key with a passphrase",
         {certificate, files_.Put("locked", one.Key("secret")), "1.2", ""},
         files_.Path("locked") + ": "},
        {"another's key",
         {certificate, files_.Put("other", two.Key()), "1.2", ""},
         files_.Path("other") + ": key values mismatch"},
    };
    for (const auto& each : broken) {
        SCOPED_TRACE(each.what);
        identity_.Configure(each.settings);
        EXPECT_EQ(Next(), first);
        EXPECT_EQ(said_.substr(0, each.said.size()), each.said);
        EXPECT_GT(said_.size(), each.said.ends_with(": ") ? each.said.size() : 0);
        EXPECT_EQ(Next(), first);
        EXPECT_EQ(said_, "") << "said twice";
        TlsIdentity fresh;
        fresh.Configure(each.settings);
        EXPECT_EQ(fresh.Context(said_), nullptr);
        EXPECT_NE(said_, "");
    }
    // One file after the other, as they are replaced in fact.
    Use(certificate, key);
    Next();
    files_.Put("certificate", two.Certificate());
    EXPECT_TRUE(Shows(*Next(), "one.test"));
    EXPECT_EQ(said_, key + ": key values mismatch");
    files_.Put("key", two.Key());
    EXPECT_TRUE(Shows(*Next(), "two.test"));
    EXPECT_EQ(said_, "");
}

TEST_F(Identity, APipeHoldsNobody) {
    const std::string pipe = files_.Path("pipe");
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    Use(pipe);
    EXPECT_EQ(Next(), nullptr);
    EXPECT_EQ(said_, pipe + ": not a plain file");
}

TEST_F(Identity, AnExpiredOneIsShownAndToldOnce) {
    const std::string file = Issue("pem", "DNS:mail.test", 0);
    std::string text = authority_.Issue({.fromDays = -9, .toDays = -1}).Both();
    files_.Put("pem", text);
    Use(file);
    const auto context = Next();
    ASSERT_NE(context, nullptr);
    EXPECT_EQ(said_, file + ": certificate has expired");
    EXPECT_EQ(Next(), context);
    EXPECT_EQ(said_, "");
    Issue("pem", "DNS:mail.test");
    EXPECT_NE(Next(), context);
    EXPECT_EQ(said_, "");
}

}  // namespace
