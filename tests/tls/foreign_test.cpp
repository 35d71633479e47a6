// With somebody else's program at the other end.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <vector>

#include "tls/peers.h"

using namespace std::chrono_literals;

namespace {

// A running openssl, whose input and output are ours.
class Program {
  public:
    explicit Program(std::vector<std::string> words) {
        std::array<int, 2> in{};
        std::array<int, 2> out{};
        EXPECT_EQ(pipe2(in.data(), O_CLOEXEC), 0);
        EXPECT_EQ(pipe2(out.data(), O_CLOEXEC), 0);
        words.insert(words.begin(), "openssl");
        std::vector<char*> arguments;
        for (std::string& each : words) arguments.push_back(each.data());
        arguments.push_back(nullptr);
        child_ = fork();
        if (child_ == 0) {
            dup2(in[0], 0);
            dup2(out[1], 1);
            dup2(out[1], 2);
            execvp("openssl", arguments.data());
            _exit(127);
        }
        close(in[0]);
        close(out[1]);
        in_ = in[1];
        out_ = out[0];
    }
    Program(const Program&) = delete;
    Program& operator=(const Program&) = delete;
    ~Program() {
        kill(child_, SIGKILL);
        waitpid(child_, nullptr, 0);
        close(in_);
        close(out_);
    }
    void Say(const std::string& text) const {
        EXPECT_EQ(write(in_, text.data(), text.size()), static_cast<ssize_t>(text.size()));
    }
    // All that it has said once it has said this; or after a time.
    const std::string& Until(const std::string& text) {
        pollfd entry{out_, POLLIN, 0};
        std::array<char, 4096> block;
        while (said_.find(text) == std::string::npos && poll(&entry, 1, 10000) == 1) {
            const ssize_t count = read(out_, block.data(), block.size());
            if (count < 1) break;
            said_.append(block.data(), static_cast<std::size_t>(count));
        }
        return said_;
    }

  private:
    pid_t child_ = -1;
    int in_ = -1;
    int out_ = -1;
    std::string said_;
};

class Foreign : public testing::Test {
  protected:
    Foreign() : authority_(Party::Authority("authority")) {
        const Party party = authority_.Issue({.names = "DNS:mail.test,IP:127.0.0.1"});
        authorities_ = files_.Put("authorities", authority_.Certificate());
        certificate_ = files_.Put("certificate", party.Certificate());
        key_ = files_.Put("key", party.Key());
    }
    static bool Has(const std::string& text, const std::string& what) {
        return text.find(what) != std::string::npos;
    }

    Files files_;
    Party authority_;
    std::string authorities_;
    std::string certificate_;
    std::string key_;
};

class ForeignClient : public Foreign {
  protected:
    ForeignClient() : listener_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        auto* const generic = reinterpret_cast<sockaddr*>(&address_);
        address_.sin_family = AF_INET;
        address_.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address_;
        EXPECT_EQ(bind(listener_, generic, length), 0);
        EXPECT_EQ(listen(listener_, 1), 0);
        EXPECT_EQ(getsockname(listener_, generic, &length), 0);
        context_ = Serve(identity_, {certificate_, key_, "1.2", ""});
    }
    ~ForeignClient() override {
        close(accepted_);
        close(listener_);
    }
    std::vector<std::string> Words(std::vector<std::string> more) const {
        std::vector<std::string> words{"s_client",
                                       "-connect",
                                       "127.0.0.1:" + std::to_string(ntohs(address_.sin_port)),
                                       "-CAfile",
                                       authorities_,
                                       "-verify_return_error",
                                       "-verify_hostname",
                                       "mail.test"};
        words.insert(words.end(), more.begin(), more.end());
        return words;
    }
    TlsOutcome Accept() {
        close(accepted_);
        accepted_ = accept(listener_, nullptr, nullptr);
        stream_.Attach(CSocket(accepted_));
        stream_.SetLimit(10);
        TlsOutcome outcome = TlsAccept(CSocket(accepted_), *context_, Deadline(10000ms));
        return outcome;
    }

    sockaddr_in address_{};
    const int listener_;
    int accepted_ = -1;
    TlsIdentity identity_;
    std::shared_ptr<const TlsContext> context_;
    Stream stream_;
};

TEST_F(ForeignClient, SpeaksWithUs) {
    for (const auto& [option, protocol] :
         {std::pair("-tls1_2", "TLSv1.2"), {"-tls1_3", "TLSv1.3"}}) {
        SCOPED_TRACE(option);
        Program program(Words({option, "-crlf"}));
        TlsOutcome outcome = Accept();
        ASSERT_NE(outcome.transport, nullptr) << outcome.failure;
        EXPECT_EQ(outcome.protocol, protocol);
        stream_.Secure(std::move(outcome.transport));
        EXPECT_TRUE(stream_.Send("220 ready\r\n"));
        program.Say("NOOP\n");
        std::string_view line;
        EXPECT_EQ(stream_.ReadLine(line, 100), Stream::Line::kWhole);
        EXPECT_EQ(line, "NOOP\r\n");
        stream_.EndSending();
        const std::string said = program.Until("closed\n");
        EXPECT_TRUE(Has(said, "220 ready")) << said;
        EXPECT_TRUE(Has(said, "Verify return code: 0 (ok)")) << said;
        EXPECT_TRUE(Has(said, "Compression: NONE")) << said;
        EXPECT_TRUE(Has(said, "No ALPN negotiated")) << said;
    }
}

TEST_F(ForeignClient, MayNotBeginAnew) {
    Program program(Words({"-tls1_2"}));
    TlsOutcome outcome = Accept();
    ASSERT_NE(outcome.transport, nullptr) << outcome.failure;
    stream_.Secure(std::move(outcome.transport));
    program.Until("Verify return code");
    program.Say("R\n");
    // It hangs up when it is refused; we have seen nothing but that.
    std::string_view line;
    EXPECT_EQ(stream_.ReadLine(line, 100), Stream::Line::kFailed);
    EXPECT_TRUE(Has(program.Until("no renegotiation"), "no renegotiation"));
}

TEST_F(ForeignClient, SpeaksNothingOld) {
    for (const char* option : {"-tls1", "-tls1_1"}) {
        SCOPED_TRACE(option);
        Program program(Words({option, "-cipher", "ALL:@SECLEVEL=0"}));
        const TlsOutcome outcome = Accept();
        EXPECT_EQ(outcome.transport, nullptr);
        EXPECT_EQ(outcome.failure, "unsupported protocol");
        EXPECT_TRUE(Has(program.Until("alert protocol version"), "alert protocol version"));
    }
}

TEST_F(Foreign, ServerSpeaksWithUs) {
    for (const auto& [option, protocol] :
         {std::pair("-tls1_2", "TLSv1.2"), {"-tls1_3", "TLSv1.3"}}) {
        SCOPED_TRACE(option);
        Program program({"s_server", "-accept", "127.0.0.1:0", "-cert", certificate_, "-key", key_,
                         "-rev", "-naccept", "1", option});
        const std::string said = program.Until("ACCEPT 127.0.0.1:") + program.Until("\n");
        const std::size_t at = said.find("ACCEPT 127.0.0.1:");
        ASSERT_NE(at, std::string::npos) << said;
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        address.sin_port = htons(static_cast<std::uint16_t>(std::stoi(said.substr(at + 17))));
        CSocket socket;
        ASSERT_TRUE(socket.Create(SOCK_STREAM) && socket.Connect(SocketAddress(address)));
        std::string complaint;
        const auto client = TlsClientContext(authorities_, complaint);
        TlsOutcome outcome =
            TlsConnect(socket, *client, "127.0.0.1", "127.0.0.1", Deadline(10000ms));
        EXPECT_EQ(outcome.failure, "");
        EXPECT_EQ(outcome.protocol, protocol);
        Stream stream;
        stream.Attach(socket);
        stream.SetLimit(10);
        stream.Secure(std::move(outcome.transport));
        EXPECT_TRUE(stream.Send("desrever\n"));
        std::string_view line;
        EXPECT_EQ(stream.ReadLine(line, 100), Stream::Line::kWhole);
        EXPECT_EQ(line, "reversed\n");
        EXPECT_TRUE(stream.Send("CLOSE\n"));
        char byte;
        EXPECT_EQ(stream.Read(&byte, 1, 10s), 0);
        socket.Close();
    }
}

}  // namespace
