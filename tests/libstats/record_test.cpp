// The record, its way to the daemon, and the life of the client.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <memory>
#include <thread>
#include <vector>

#include "libstats/libstats.h"
#include "lipc/lipc.h"
#include "platform/home.h"
#include "support/instance.h"
#include "tagmsg/tagmsg.h"
#include "tagmsg/tags.h"

namespace {

using namespace std::chrono_literals;

struct FreeRecord {
    void operator()(libstats::CStatsRequest* record) const { FreeStatsRequest(record); }
};
using Record = std::unique_ptr<libstats::CStatsRequest, FreeRecord>;

TEST(StatsRecord, BeginsEmpty) {
    const Record record(CreateStatsRequest());
    for (const char* text : {record->GetSourceHost(), record->GetTargetHost(), record->GetSender(),
                             record->GetRecipients(), record->GetDetails(), record->GetLabel(),
                             record->GetTextA(), record->GetTextB()})
        EXPECT_EQ(text, nullptr);
    for (const std::int64_t number :
         {record->GetStamp(), std::int64_t{record->GetAgentId()},
          std::int64_t{record->GetServiceId()}, std::int64_t{record->GetCount()},
          std::int64_t{record->GetEventCode()}, std::int64_t{record->GetValue()},
          std::int64_t{record->GetObjectStatus()}, std::int64_t{record->GetActionMask()}})
        EXPECT_EQ(number, 0);
    FreeStatsRequest(nullptr);
}

TEST(StatsRecord, ListsAreJoinedAndBeginAnew) {
    const Record record(CreateStatsRequest());
    record->AddRecipient(nullptr);
    EXPECT_EQ(record->GetRecipients(), nullptr);
    for (const char* each : {"a", "b", "c"}) record->AddRecipient(each);
    EXPECT_STREQ(record->GetRecipients(), "a;b;c");
    record->AddRecipient("");
    EXPECT_STREQ(record->GetRecipients(), "a;b;c;");
    record->AddRecipient(record->GetRecipients());
    EXPECT_STREQ(record->GetRecipients(), "a;b;c;;a;b;c;") << "its own text";
    record->ClearRecipients();
    record->AddRecipient("d");
    EXPECT_STREQ(record->GetRecipients(), "d");
    record->AddDetail("");
    EXPECT_STREQ(record->GetDetails(), "");
    record->ClearDetails();
    EXPECT_EQ(record->GetDetails(), nullptr);
}

TEST(StatsRecord, TextsAreCopies) {
    const Record record(CreateStatsRequest());
    char text[] = "first";
    const char* stored = record->SetSender(text);
    EXPECT_EQ(stored, record->GetSender());
    text[0] = 'F';
    EXPECT_STREQ(record->GetSender(), "first");
    EXPECT_STREQ(record->SetSender(record->GetSender() + 1), "irst") << "a part of itself";
    EXPECT_EQ(record->SetSender(nullptr), nullptr);
    EXPECT_EQ(record->GetSender(), nullptr);
}

// The statistics daemon: takes requests until it ends; answers them or not.
class FakeDaemon {
  public:
    explicit FakeDaemon(bool answer = true) {
        EXPECT_EQ(LIPCOpenServer(&server_, "VTSTATD"), LIPC_OK);
        thread_ = std::thread([this, answer] {
            LIPCConnection* connection = nullptr;
            const void* data = nullptr;
            std::uint32_t length = 0;
            while (LIPCReceive(server_, &connection, &data, &length, -1) != LIPC_CLOSING) {
                if (requests == 0)
                    flat.assign(static_cast<const char*>(data), static_cast<std::size_t>(length));
                ++requests;
                if (answer) LIPCReply(server_, connection, nullptr, 0);
            }
        });
    }
    ~FakeDaemon() { End(); }
    void End() {
        if (server_ != nullptr) LIPCClose(server_);
        server_ = nullptr;
        if (thread_.joinable()) thread_.join();
    }
    std::atomic<int> requests{0};
    std::string flat;  // the first request; read it after End

  private:
    LIPCEndpoint* server_ = nullptr;
    std::thread thread_;
};

// The attributes of a flat form in the order of adding, each as a line.
std::string Lines(const std::string& flat) {
    TagMsgNode* root = nullptr;
    if (TagMsgParse(&root, flat.data(), static_cast<std::int32_t>(flat.size())) != TAGMSG_OK)
        return "unreadable";
    std::string lines;
    // A parsed list runs oldest first, as the flat form is newest first.
    for (const TagMsgAttr* each = root->attrs; each != nullptr; each = each->next) {
        char line[256];
        if ((each->tag & 0xFF) == kTagTypeText)
            std::snprintf(line, sizeof line, "%04X %s\n", each->tag, each->value.text);
        else
            std::snprintf(line, sizeof line, "%04X %d\n", each->tag, each->value.number);
        lines += line;
    }
    TagMsgFree(root, 1, 1);
    return lines;
}

class StatsClient : public testing::Test {
  protected:
    StatsClient() { EXPECT_EQ(InitLibStats(), 0); }
    ~StatsClient() override { ReleaseLibStats(); }
};

TEST_F(StatsClient, ADeniedPeerOnTheWire) {
    FakeDaemon daemon;
    const Record record(CreateStatsRequest());
    record->SetTargetHost("127.0.0.5");
    record->SetSourceHost("no-such-host.invalid");
    record->SetAgentId(4);
    record->SetServiceId(22);
    record->SetEventCode(80);
    record->SetObjectStatus(30);
    record->SetActionMask(62);
    EXPECT_EQ(GetLibStats()->SendRequest(record.get()), 0);
    daemon.End();
    EXPECT_EQ(Lines(daemon.flat),
              "4100 0\n4101 0\n4201 83886207\n1501 4\n4301 22\n4501 0\n4801 80\n4901 0\n1401 62\n"
              "0401 30\n");
}

TEST_F(StatsClient, AllFieldsOnTheWire) {
    FakeDaemon daemon;
    const Record record(CreateStatsRequest());
    record->SetStamp(0x180000001);
    record->SetAgentId(0xFFFFFFFF);
    record->SetServiceId(-1);
    record->SetSender("s");
    record->AddRecipient("r1");
    record->AddRecipient("r2");
    record->SetLabel("");
    record->SetCount(1);
    record->SetTextA("a");
    record->SetTextB("b");
    record->SetEventCode(2);
    record->SetValue(3);
    record->SetActionMask(4);
    record->SetObjectStatus(5);
    record->AddDetail("d");
    EXPECT_EQ(GetLibStats()->SendRequest(record.get()), 0);
    daemon.End();
    EXPECT_EQ(Lines(daemon.flat),
              "4100 -2147483647\n1501 -1\n4301 -1\n1300 s\n4400 r1;r2\n1B00 \n4501 1\n4600 a\n"
              "4700 b\n4801 2\n4901 3\n1401 4\n0401 5\n0300 d\n");
}

TEST_F(StatsClient, NoDaemonFailsAtOnceAndLaterOneIsFound) {
    const Record record(CreateStatsRequest());
    EXPECT_EQ(GetLibStats()->SendRequest(record.get()), -1);
    EXPECT_EQ(GetLibStats()->SendRequest(nullptr), -1);
    const FakeDaemon daemon;
    EXPECT_EQ(GetLibStats()->SendRequest(record.get()), 0);
}

TEST_F(StatsClient, ReferencesAreCounted) {
    EXPECT_EQ(InitLibStats(), 0);
    EXPECT_EQ(ReleaseLibStats(), 0);
    ASSERT_NE(GetLibStats(), nullptr);
    const FakeDaemon daemon;
    const Record record(CreateStatsRequest());
    EXPECT_EQ(GetLibStats()->SendRequest(record.get()), 0) << "the endpoint is still open";
    EXPECT_EQ(ReleaseLibStats(), 0);
    EXPECT_EQ(GetLibStats(), nullptr);
    EXPECT_EQ(ReleaseLibStats(), 0);
    EXPECT_EQ(InitLibStats(), 0);
    EXPECT_EQ(GetLibStats()->SendRequest(record.get()), 0) << "a second life";
}

TEST_F(StatsClient, ReleaseEndsARequestThatWaits) {
    FakeDaemon daemon(false);
    const Record record(CreateStatsRequest());
    libstats::CLibStats* client = GetLibStats();
    int result = 0;
    std::thread sender([&] { result = client->SendRequest(record.get()); });
    while (daemon.requests == 0) std::this_thread::sleep_for(1ms);
    ReleaseLibStats();
    sender.join();
    EXPECT_LT(result, 0);
    EXPECT_LT(client->SendRequest(record.get()), 0) << "one that comes late";
}

TEST_F(StatsClient, PostedRecordsArriveBeforeTheEnd) {
    FakeDaemon daemon;
    const Record record(CreateStatsRequest());
    record->SetEventCode(80);
    for (int i = 0; i < 100; ++i) EXPECT_EQ(GetLibStats()->PostRequest(record.get()), 0);
    libstats::CLibStats* client = GetLibStats();
    ReleaseLibStats();
    EXPECT_EQ(daemon.requests, 100);
    EXPECT_LT(client->PostRequest(record.get()), 0) << "one that comes late";
    EXPECT_LT(client->PostRequest(nullptr), 0);
    daemon.End();
    EXPECT_NE(Lines(daemon.flat).find("4801 80\n"), std::string::npos);
}

TEST_F(StatsClient, PostsDoNotWaitForADaemonThatHangs) {
    FakeDaemon daemon(false);
    const Record record(CreateStatsRequest());
    const auto start = std::chrono::steady_clock::now();
    int lost = 0;
    for (int i = 0; i < 11000; ++i) lost += GetLibStats()->PostRequest(record.get()) < 0 ? 1 : 0;
    EXPECT_GE(lost, 999) << "all but those that wait and the one in the daemon's hands";
    EXPECT_LE(lost, 1000);
    EXPECT_LT(std::chrono::steady_clock::now() - start, 10s);
    const auto end = std::chrono::steady_clock::now();
    ReleaseLibStats();
    EXPECT_LT(std::chrono::steady_clock::now() - end, 4s);
}

TEST_F(StatsClient, LostRecordsAreTold) {
    static std::atomic<std::uint64_t> told{0};
    told = 0;
    OnStatsLost([](std::uint64_t lost) { told += lost; });
    const Record record(CreateStatsRequest());
    int lost = 0;
    for (int i = 0; i < 10100; ++i) lost += GetLibStats()->PostRequest(record.get()) < 0 ? 1 : 0;
    EXPECT_GE(lost, 99);
    const FakeDaemon daemon;
    const auto end = std::chrono::steady_clock::now() + 20s;
    while (told == 0 && std::chrono::steady_clock::now() < end) std::this_thread::sleep_for(1ms);
    EXPECT_EQ(told, static_cast<std::uint64_t>(lost));
    EXPECT_EQ(daemon.requests, 10100 - lost);
    OnStatsLost(nullptr);
}

TEST(StatsRelease, MeetsSendersAtAnyPoint) {
    const FakeDaemon daemon;
    std::atomic<bool> stop{false};
    std::atomic<int> sent{0};
    std::vector<std::thread> senders;
    for (int i = 0; i < 3; ++i) {
        senders.emplace_back([&] {
            const Record record(CreateStatsRequest());
            while (!stop) {
                libstats::CLibStats* client = GetLibStats();
                if (client == nullptr) std::this_thread::yield();
                if (client != nullptr && client->SendRequest(record.get()) == 0) ++sent;
            }
        });
    }
    for (int round = 0; round < 100; ++round) {
        EXPECT_EQ(InitLibStats(), 0);
        const int before = sent;
        while (sent == before) std::this_thread::yield();
        ReleaseLibStats();
    }
    stop = true;
    for (std::thread& each : senders) each.join();
    EXPECT_GE(sent, 100);
}

TEST_F(StatsClient, ABusyDaemonIsTriedAgain) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::snprintf(address.sun_path, sizeof address.sun_path, "%s",
                  platform::HomePath("pipes/VTSTATD").c_str());
    const auto* generic = reinterpret_cast<const sockaddr*>(&address);
    const int busy = socket(AF_UNIX, SOCK_STREAM, 0);
    unlink(address.sun_path);
    ASSERT_EQ(bind(busy, generic, sizeof address), 0);
    ASSERT_EQ(listen(busy, 0), 0);
    std::vector<int> waiting;
    do waiting.push_back(socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0));
    while (connect(waiting.back(), generic, sizeof address) == 0);
    const Record record(CreateStatsRequest());
    std::atomic<bool> finished{false};
    int result = -1;
    std::thread sender([&] {
        result = GetLibStats()->SendRequest(record.get());
        finished = true;
    });
    std::this_thread::sleep_for(400ms);
    EXPECT_FALSE(finished);
    {
        // Takes the socket's place: at no time is nobody there.
        const FakeDaemon daemon;
        sender.join();
    }
    close(busy);
    EXPECT_EQ(result, 0);
    for (const int each : waiting) close(each);
}

}  // namespace
