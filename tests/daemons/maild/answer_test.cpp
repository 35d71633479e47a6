// What an engine's answer, and the text that says where it is, are taken for.
#include "daemons/maild/engine/answer.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <string_view>
#include <thread>

#include "daemons/maild/engine/address.h"
#include "daemons/maild/engine/connection.h"
#include "support/instance.h"

namespace {

using namespace std::string_view_literals;
using namespace std::chrono_literals;

TEST(EngineAnswer, OnlyTheWholeFormIsClean) {
    const struct {
        std::string_view answer;
        ScanOutcome outcome;
        const char* text;
    } cases[] = {
        {"fd[12]: OK", ScanOutcome::kClean, ""},
        {"stream: OK", ScanOutcome::kClean, ""},
        {"stream: Win.Test FOUND", ScanOutcome::kInfected, "Win.Test"},
        {"Win.Test FOUND", ScanOutcome::kInfected, "Win.Test"},
        {" FOUND", ScanOutcome::kInfected, ""},
        {"fd[1]: Heuristics.Limits.Exceeded.MaxFileSize FOUND", ScanOutcome::kTooBig,
         "Heuristics.Limits.Exceeded.MaxFileSize"},
        {"fd[1]: Heuristics.Encrypted.Zip FOUND", ScanOutcome::kEncrypted,
         "Heuristics.Encrypted.Zip"},
        {"x: Heuristics.Encrypted.Zip FOUND", ScanOutcome::kFailed,
         "x: Heuristics.Encrypted.Zip FOUND"},
        {"INSTREAM size limit exceeded. ERROR", ScanOutcome::kTooBig,
         "INSTREAM size limit exceeded. ERROR"},
        {"fd[12]: O", ScanOutcome::kFailed, "fd[12]: O"},
        {"fd[]: OK", ScanOutcome::kFailed, "fd[]: OK"},
        {"fd[1x]: OK", ScanOutcome::kFailed, "fd[1x]: OK"},
        {"OK", ScanOutcome::kFailed, "OK"},
        {": OK", ScanOutcome::kFailed, ": OK"},
        {"HTTP/1.1 200: OK", ScanOutcome::kFailed, "HTTP/1.1 200: OK"},
        {"stream: OK ", ScanOutcome::kFailed, "stream: OK "},
        {"stream: ok", ScanOutcome::kFailed, "stream: ok"},
        {"stream: Eicar FOUND\0stream: OK"sv, ScanOutcome::kFailed,
         "stream: Eicar FOUND?stream: OK"},
        {"stream: Eicar FOUND\nstream: OK", ScanOutcome::kFailed, "stream: Eicar FOUND?stream: OK"},
        {"", ScanOutcome::kFailed, ""},
    };
    for (const auto& each : cases) {
        SCOPED_TRACE(std::string(each.answer));
        const ScanResult result = ReadAnswer(each.answer);
        EXPECT_EQ(result.outcome, each.outcome);
        EXPECT_EQ(result.text, each.text);
    }
}

// Half of one, and more than one, are none.
TEST(EngineAnswer, OneReplyEndsInOneZero) {
    const struct {
        std::string_view sent;
        bool received;
    } cases[] = {{"stream: OK\0"sv, true},
                 {"stream: OK"sv, false},
                 {"stream: OK\0stream: OK\0"sv, false},
                 {"\0"sv, false},
                 {""sv, false}};
    for (const auto& each : cases) {
        SCOPED_TRACE(std::string(each.sent));
        const ServiceAddress address = ServiceAddress::OfPath(g_instance.Path() + "/engine");
        const std::vector<SocketTarget> targets = FindTargets(address);
        ASSERT_EQ(targets.size(), 1U);
        unlink(address.path.c_str());
        const platform::UniqueDescriptor listener(socket(AF_UNIX, SOCK_STREAM, 0));
        ASSERT_EQ(bind(listener.Get(), reinterpret_cast<const sockaddr*>(&targets[0].address),
                       targets[0].length),
                  0);
        ASSERT_EQ(listen(listener.Get(), 1), 0);
        Connection connection;
        connection.SetEnd(Connection::Clock::now() + 10s);
        ASSERT_EQ(connection.Open(targets), ScanOutcome::kClean);
        platform::UniqueDescriptor peer(accept(listener.Get(), nullptr, nullptr));
        ASSERT_EQ(write(peer.Get(), each.sent.data(), each.sent.size()),
                  static_cast<ssize_t>(each.sent.size()));
        peer.Reset();
        std::string reply;
        EXPECT_EQ(connection.Receive(reply), each.received);
        if (each.received) {
            EXPECT_EQ(reply, "stream: OK");
        }
    }
}

TEST(ServiceAddress, TextsOfBothKinds) {
    const struct {
        std::string_view text;
        const char* path;
        const char* host;
        int port;  // 0: no address
    } cases[] = {
        {"unix:/run/clamd.ctl", "/run/clamd.ctl", "", 1},
        {"127.0.0.1:3310", "", "127.0.0.1", 3310},
        {"scan.example.org:65535", "", "scan.example.org", 65535},
        {"[::1]:3310", "", "::1", 3310},
        {"::1:3310", "", "", 0},
        {"[127.0.0.1]:3310", "", "", 0},
        {"[]:3310", "", "", 0},
        {"unix:", "", "", 0},
        {"unix:relative", "", "", 0},
        {"unix:/a\0b"sv, "", "", 0},
        {"/run/clamd.ctl", "", "", 0},
        {"host", "", "", 0},
        {"host:", "", "", 0},
        {"host:0", "", "", 0},
        {"host:65536", "", "", 0},
        {"host:-1", "", "", 0},
        {"host:33x", "", "", 0},
        {":3310", "", "", 0},
        {"a host:3310", "", "", 0},
        {"a\nb:3310", "", "", 0},
        {"", "", "", 0},
    };
    for (const auto& each : cases) {
        SCOPED_TRACE(std::string(each.text));
        const auto address = ServiceAddress::Parse(each.text);
        ASSERT_EQ(address.has_value(), each.port != 0);
        if (!address) continue;
        EXPECT_EQ(address->path, each.path);
        EXPECT_EQ(address->host, each.host);
        if (!address->host.empty()) {
            EXPECT_EQ(address->port, each.port);
        }
        EXPECT_EQ(address->Text(), each.text);
    }
    EXPECT_TRUE(FindTargets(ServiceAddress::OfPath(std::string(200, '/'))).empty());
}

}  // namespace
