// The record, its way to the daemon, and the life of the client.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <memory>
#include <thread>
#include <vector>

#include "libstats/libstats.h"
#include "lipc/lipc.h"
#include "support/busy_pipe.h"
#include "support/instance.h"
#include "support/pipe_daemon.h"
#include "tagmsg/tagmsg.h"
#include "tagmsg/tags.h"

namespace {

using namespace std::chrono_literals;

struct FreeRecord {
    void operator()(libstats::CStatsRequest* record) const { FreeStatsRequest(record); }
};
using Record = std::unique_ptr<libstats::CStatsRequest, FreeRecord>;

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
struct FakeDaemon {
    explicit FakeDaemon(bool answer = true)
        : daemon("VTSTATD", [this, answer](const std::string& request) {
              if (requests == 0) flat = request;
              ++requests;
              return answer ? std::optional<std::string>("") : std::nullopt;
          }) {}
    std::atomic<int> requests{0};
    std::string flat;  // the first request; read it after the daemon's End
    PipeDaemon daemon;
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

TEST_F(StatsClient, AllFieldsOnTheWire) {
    FakeDaemon daemon;
    const Record record(CreateStatsRequest());
    record->SetStamp(0x180000001);
    record->SetTargetHost("127.0.0.5");
    record->SetSourceHost("no-such-host.invalid");
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
    daemon.daemon.End();
    EXPECT_EQ(Lines(daemon.flat),
              "4100 -2147483647\n4101 0\n4201 83886207\n1501 -1\n4301 -1\n1300 s\n4400 r1;r2\n1B00 "
              "\n4501 1\n4600 a\n"
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
    daemon.daemon.End();
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
    EXPECT_LT(std::chrono::steady_clock::now() - end, 10s);
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
    BusyPipe busy("VTSTATD");
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
    EXPECT_EQ(result, 0);
}

}  // namespace
