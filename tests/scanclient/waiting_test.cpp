// Scans that find no connection: the daemon's are all busy, or all that may be open are held.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <thread>
#include <vector>

#include "lipc/lipc.h"
#include "platform/home.h"
#include "scanclient/scanclient.h"
#include "support/instance.h"
#include "tagmsg/owned.h"
#include "tagmsg/tags.h"

namespace {

using namespace std::chrono_literals;

class Waiting : public testing::Test {
  protected:
    Waiting() {
        rlimit limit{};
        getrlimit(RLIMIT_NOFILE, &limit);
        limit.rlim_cur = limit.rlim_max;
        setrlimit(RLIMIT_NOFILE, &limit);
        EXPECT_EQ(MailScanInit(), 0);
    }
    ~Waiting() override { MailScanUninit(); }
};

// A scan whose session counts how often it is asked, and goes away at the given call.
struct Session {
    int goneAt = 0;  // 0: never
    std::atomic<int> asked{0};
    int Scan(std::uint32_t sliceSeconds) {
        MailScanRecord record{};
        record.path = "/spool/x";
        record.timeoutSeconds = sliceSeconds;
        record.cancelContext = this;
        record.cancelCallback = [](void* context) {
            auto& session = *static_cast<Session*>(context);
            return ++session.asked == session.goneAt ? 1 : 0;
        };
        const int status = MailScan(&record);
        MailScanFree(&record);
        return status;
    }
};

// Nobody accepts, and the backlog is full.
TEST_F(Waiting, ABusyDaemonLeavesTheSessionAlive) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::snprintf(address.sun_path, sizeof address.sun_path, "%s",
                  platform::HomePath("pipes/vtmaild").c_str());
    const auto* generic = reinterpret_cast<const sockaddr*>(&address);
    const int busy = socket(AF_UNIX, SOCK_STREAM, 0);
    ASSERT_EQ(bind(busy, generic, sizeof address), 0);
    ASSERT_EQ(listen(busy, 0), 0);
    std::vector<int> waiting;
    do waiting.push_back(socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0));
    while (connect(waiting.back(), generic, sizeof address) == 0);
    Session session;
    session.goneAt = 2;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(session.Scan(1), -1);
    const auto took = std::chrono::steady_clock::now() - start;
    EXPECT_EQ(session.asked, 2);
    EXPECT_GE(took, 2s);
    EXPECT_LT(took, 4s);
    for (const int each : waiting) close(each);
    close(busy);
    unlink(address.sun_path);
}

// Takes requests with many threads, and answers when it is let.
class SlowDaemon {
  public:
    SlowDaemon() {
        EXPECT_EQ(LIPCOpenServer(&server_, "vtmaild"), LIPC_OK);
        for (int i = 0; i < 4; ++i) threads_.emplace_back([this] { Serve(); });
    }
    ~SlowDaemon() {
        answering = true;
        LIPCClose(server_);
        for (std::thread& each : threads_) each.join();
    }
    std::atomic<bool> answering{false};

  private:
    void Serve() {
        OwnedMessage reply;
        OwnedFlatForm flat;
        const std::int32_t forward = 1;
        TagMsgCreate(&reply.root);
        TagMsgAddAttr(reply.root, TagActionMask, &forward);
        TagMsgSerialize(reply.root, &flat.data, &flat.length);
        for (;;) {
            LIPCConnection* connection = nullptr;
            const void* data = nullptr;
            std::uint32_t length = 0;
            const int status = LIPCReceive(server_, &connection, &data, &length, -1);
            if (status == LIPC_CLOSING) return;
            if (status != LIPC_OK) continue;
            while (!answering) std::this_thread::sleep_for(1ms);
            LIPCReply(server_, connection, flat.data, flat.length);
        }
    }
    LIPCEndpoint* server_ = nullptr;
    std::vector<std::thread> threads_;
};

TEST_F(Waiting, FourHundredScansAtOnceAreAllAnswered) {
    constexpr std::size_t kSessions = 400;
    std::vector<Session> sessions(kSessions);
    sessions[0].goneAt = sessions[200].goneAt = sessions[399].goneAt = 2;
    std::vector<int> results(kSessions, 1);
    std::vector<std::thread> threads;
    {
        SlowDaemon daemon;
        for (std::size_t i = 0; i < kSessions; ++i)
            threads.emplace_back([&, i] { results[i] = sessions[i].Scan(1); });
        // Also those who wait for a connection.
        const auto askedOften = [](const Session& each) {
            return each.asked >= (each.goneAt == 0 ? 3 : 2);
        };
        const auto end = std::chrono::steady_clock::now() + 20s;
        while (!std::all_of(sessions.begin(), sessions.end(), askedOften) &&
               std::chrono::steady_clock::now() < end)
            std::this_thread::sleep_for(10ms);
        EXPECT_EQ(std::count_if(sessions.begin(), sessions.end(), askedOften),
                  static_cast<std::ptrdiff_t>(kSessions));
        daemon.answering = true;
        for (std::thread& each : threads) each.join();
    }
    for (std::size_t i = 0; i < kSessions; ++i)
        EXPECT_EQ(results[i], sessions[i].goneAt == 0 ? 0 : -1) << i;
}

}  // namespace
