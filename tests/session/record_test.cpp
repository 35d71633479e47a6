// What the log says of messages: queue ids, Message-IDs, the ids of sessions and where they go.
#include "session/record.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "session/journal.h"
#include "session/message/message_id.h"

namespace {

TEST(Record, QueueIds) {
    const struct {
        const char* reply;
        const char* id;
    } rows[] = {
        {"250 2.0.0 Ok: queued as 4B3c2D1e", "4B3c2D1e"},
        {"250 2.0.0 Ok: queued as 3YxQ8z1Dqyz9sWZ\r\n", "3YxQ8z1Dqyz9sWZ"},
        {"250 2.0.0 from MTA(smtp:[127.0.0.1]:10025): 250 2.0.0 Ok: queued as 4TzX", "4TzX"},
        {"250 OK id=1rOaHl-0005Rp-2F", "1rOaHl-0005Rp-2F"},
        {"250 OK id=1rOaHl-0005Rp-2F.", "1rOaHl-0005Rp-2F"},
        {"250 2.0.0 4AQ2d1Xk012345 Message accepted for delivery\r\n", "4AQ2d1Xk012345"},
        {"250 2.0.0 Message accepted for delivery", ""},
        {"250 Message accepted for delivery", ""},
        {"250 2.6.0 <a@b.example> [InternalId=36803921346567, Hostname=ex.example] Queued mail for "
         "delivery",
         "36803921346567"},
        {"250 2.6.0 <x queued as Y@b.example> [InternalId=7, Hostname=e] Queued", "7"},
        {"250 ok", ""},
        {"250 queued as ", ""},
        {"250 queued as \x1b[1m", ""},
        {"451 4.3.0 queued as 4B3c2D1e", ""},
        {"", ""},
    };
    for (const auto& row : rows) EXPECT_EQ(QueueIdIn(row.reply), row.id) << row.reply;
    EXPECT_EQ(QueueIdIn("250 queued as " + std::string(65, 'A')), "") << "no queue's";
}

TEST(Record, MessageIdIsFoundHoweverReadsCutTheMessage) {
    const struct {
        const char* what;
        std::string text;
        const char* id;
    } rows[] = {
        {"first line", "Message-ID: <a@b>\r\nSubject: x\r\n\r\n", "<a@b>"},
        {"case, blanks", "Subject: x\r\nmessage-id \t:  <a@b> \t\r\n\r\n", "<a@b>"},
        {"no blank", "MESSAGE-ID:<a@b>\r\n\r\n", "<a@b>"},
        {"folded", "Message-ID:\r\n <a@b>\r\nX: y\r\n\r\n", "<a@b>"},
        {"in two", "Message-ID: <a\r\n\tb>\r\n\r\n", "<a b>"},
        {"bare line feeds", "X: y\nMessage-ID: <a@b>\n\n", "<a@b>"},
        {"no end", "Message-ID: <a@b>", ""},
        {"a body's", "Subject: x\r\n\r\nMessage-ID: <a@b>\r\n", ""},
        {"another's", "Old-Message-ID: <a@b>\r\nMessage-IDs: <c@d>\r\n\r\n", ""},
        {"in a folded line", "Subject: x\r\n Message-ID: <a@b>\r\n\r\n", ""},
        {"the first one", "Message-ID: <a@b>\r\nMessage-ID: <c@d>\r\n\r\n", "<a@b>"},
        {"not printable", "Message-ID: <a\x1b[1m\x80@b>\r\n\r\n", "<a?[1m?@b>"},
    };
    for (const auto& row : rows) {
        for (std::size_t cut = 0; cut <= row.text.size(); ++cut) {
            MessageIdFinder finder;
            finder.Begin();
            std::string id;
            finder.Feed(std::string_view(row.text).substr(0, cut), id);
            finder.Feed(std::string_view(row.text).substr(cut), id);
            ASSERT_EQ(id, row.id) << row.what << ", cut at " << cut;
        }
    }
    MessageIdFinder finder;
    std::string id;
    finder.Begin();
    finder.Feed("Message-ID: " + std::string(5000, 'x') + "\r\n\r\n", id);
    EXPECT_EQ(id.size(), 255U) << "bounded";
    id.clear();
    finder.Begin();
    for (int i = 0; i < 100; ++i) finder.Feed("X: " + std::string(1000, 'x') + "\r\n", id);
    finder.Feed("Message-ID: <a@b>\r\n\r\n", id);
    EXPECT_EQ(id, "") << "a header without an end isn't looked through";
}

TEST(Record, SessionIdsAreShortAndTheirOwn) {
    constexpr int kThreads = 4;
    constexpr int kEach = 5000;
    std::vector<std::vector<std::string>> made(kThreads);
    std::vector<std::thread> threads;
    for (auto& mine : made) {
        threads.emplace_back([&mine] {
            for (int i = 0; i < kEach; ++i) mine.push_back(NewSessionId());
        });
    }
    for (std::thread& each : threads) each.join();
    std::set<std::string> all;
    for (const auto& mine : made) all.insert(mine.begin(), mine.end());
    EXPECT_EQ(all.size(), static_cast<std::size_t>(kThreads * kEach));
    for (const std::string& id : all) {
        ASSERT_EQ(id.size(), 14U);
        ASSERT_TRUE(std::all_of(id.begin(), id.end(), [](char c) {
            return (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9');
        })) << id;
    }
}

TEST(Record, TheIdStandsInFrontOfTheLineEnd) {
    Journal journal;
    journal.session.id = "s";
    const struct {
        std::string reply;
        std::string with;
    } rows[] = {
        {"451 4.3.0 Later\r\n", "451 4.3.0 Later [s]\r\n"},
        {"550 no", "550 no [s]"},
        {"550-one\r\n550 two\r\n", "550-one\r\n550 two [s]\r\n"},
        {"250 ok\r\n", "250 ok\r\n"},
        {"550 " + std::string(502, 'x') + "\r\n", "550 " + std::string(502, 'x') + " [s]\r\n"},
        {"550 " + std::string(503, 'x') + "\r\n", "550 " + std::string(503, 'x') + "\r\n"},
        {"550-one\r\n550 " + std::string(502, 'x') + "\r\n",
         "550-one\r\n550 " + std::string(502, 'x') + " [s]\r\n"},
    };
    for (const auto& row : rows) EXPECT_EQ(journal.WithId(row.reply), row.with);
    journal.BeginMessage({}, "data");
    EXPECT_EQ(journal.WithId("451 x\r\n"), "451 x [s-1]\r\n");
    journal.EndMessage();
    EXPECT_EQ(journal.WithId("451 x\r\n"), "451 x [s]\r\n");
}

TEST(Record, AMessageKeepsItsTextsBounded) {
    Envelope envelope;
    envelope.AcceptSender("MAIL FROM:<>\r\n", "<>\r\n", false);
    for (int i = 0; i < 1000; ++i) envelope.AcceptRecipient("r@example.org");
    Journal journal;
    journal.BeginMessage(envelope, "bdat");
    EXPECT_EQ(journal.message.from, "<>");
    EXPECT_LE(journal.message.to.size(), 4096U + 4);
    EXPECT_TRUE(journal.message.to.ends_with("r@example.org;..."));
    journal.Replied("250-one\r\n250 " + std::string(1000, 'x') + "\r\n");
    EXPECT_EQ(journal.message.reply, ("250-one 250 " + std::string(1000, 'x')).substr(0, 512));
    journal.BeginMessage(envelope, "data");
    EXPECT_EQ(journal.session.messages, 2U);
    EXPECT_EQ(journal.message.reply, "") << "of the message before";
}

}  // namespace
