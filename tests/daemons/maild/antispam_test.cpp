// What answers of rspamd and spamd are taken for, and what becomes of the message then.
#include <gtest/gtest.h>

#include <string>
#include <string_view>

#include "daemons/maild/antispam/findings.h"
#include "daemons/maild/antispam/patience.h"
#include "daemons/maild/antispam/rspamd.h"
#include "daemons/maild/antispam/spamd.h"
#include "libstats/codes.h"

namespace maild {
namespace {

TEST(Headed, OnlyAWholeAnswerCounts) {
    const std::string head = "HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\n";
    const std::string open = "HTTP/1.1 200 OK\r\n\r\n";
    const struct {
        const char* name;
        std::string bytes;
        bool ended;
        Came came;
    } cases[] = {
        {"whole", head + "{}", false, Came::kWhole},
        {"half of the head", head.substr(0, 20), false, Came::kPart},
        {"half of the head, and no more", head.substr(0, 20), true, Came::kNonsense},
        {"half of the body", head + "{", false, Came::kPart},
        {"half of the body, and no more", head + "{", true, Came::kNonsense},
        {"more than the body", head + "{}{}", false, Came::kNonsense},
        {"nothing", "", true, Came::kNonsense},
        {"without a length it ends with the connection", open + "{}", true, Came::kWhole},
        {"and not before", open + "{}", false, Came::kPart},
        {"no head", std::string(kLongestHead, 'x'), false, Came::kNonsense},
        {"a line that is none", "HTTP/1.1 200 OK\r\nnonsense\r\n\r\n", true, Came::kNonsense},
        {"two lengths", "S\r\nContent-Length: 0\r\ncontent-length: 1\r\n\r\n", false,
         Came::kNonsense},
        {"a length that is none", "S\r\nContent-Length: -1\r\n\r\n", false, Came::kNonsense},
        {"a length beyond all numbers", "S\r\nContent-Length: 99999999999999999999\r\n\r\n", false,
         Came::kNonsense},
        {"a length beyond the bound", "S\r\nContent-Length: 9999999\r\n\r\n", false,
         Came::kNonsense},
        {"a body beyond it", open + std::string(kLongestBody + 1, 'x'), false, Came::kNonsense},
        {"in pieces", "S\r\nTransfer-Encoding: chunked\r\n\r\n0\r\n\r\n", true, Came::kNonsense},
    };
    for (const auto& each : cases) {
        SCOPED_TRACE(each.name);
        HeadedReply reply;
        EXPECT_EQ(ReadHeaded(each.bytes, each.ended, reply), each.came);
        if (each.came == Came::kWhole) {
            EXPECT_EQ(reply.body, "{}");
        }
    }
}

TEST(Rspamd, Answers) {
    const struct {
        const char* name;
        std::string json;
        bool answered;
        double score;
        SpamAdvice advice;
    } cases[] = {
        {"nothing", R"({"score": -1.5, "action": "no action"})", true, -1.5, SpamAdvice::kNothing},
        {"header", R"({"score": 7, "action": "add header"})", true, 7, SpamAdvice::kTag},
        {"subject", R"({"score": 8, "action": "rewrite subject"})", true, 8, SpamAdvice::kTag},
        {"reject", R"({"score": 15.0, "action": "reject", "is_skipped": true})", true, 15,
         SpamAdvice::kReject},
        {"discard", R"({"score": 15.0, "action": "discard"})", true, 15, SpamAdvice::kReject},
        {"quarantine", R"({"score": 9, "action": "quarantine"})", true, 9, SpamAdvice::kQuarantine},
        {"greylist", R"({"score": 4, "action": "greylist"})", true, 4, SpamAdvice::kPutOff},
        {"soft", R"({"score": 4, "action": "soft reject"})", true, 4, SpamAdvice::kPutOff},
        {"its own word", R"({"score": 4, "action": "dance"})", true, 4, SpamAdvice::kNothing},
        {"skipped", R"({"score": 0, "action": "no action", "is_skipped": true})", true, 0,
         SpamAdvice::kSkip},
        {"no bound", R"({"score": 1e300, "action": "reject"})", true, kLargestScore,
         SpamAdvice::kReject},
        {"bytes that are no text", "{\"score\": 7, \"action\": \"add header\", \"x\": \"\xFF\"}",
         true, 7, SpamAdvice::kTag},
        {"no score", R"({"action": "reject"})", false, 0, SpamAdvice::kNothing},
        {"no number", R"({"score": "15", "action": "reject"})", false, 0, SpamAdvice::kNothing},
        {"no action", R"({"score": 15})", false, 0, SpamAdvice::kNothing},
        {"no word", R"({"score": 15, "action": null})", false, 0, SpamAdvice::kNothing},
        {"an error", R"({"error": "invalid command"})", false, 0, SpamAdvice::kNothing},
        {"half", R"({"score": 15, "action": "rej)", false, 0, SpamAdvice::kNothing},
        {"a list", R"([{"score": 15, "action": "reject"}])", false, 0, SpamAdvice::kNothing},
        {"empty", "", false, 0, SpamAdvice::kNothing},
        {"deep", std::string(100000, '['), false, 0, SpamAdvice::kNothing},
        {"deep where nobody looks",
         R"({"score": 1, "action": "no action", "x": )" + std::string(40, '[') +
             std::string(40, ']') + "}",
         false, 0, SpamAdvice::kNothing},
        {"brackets in a text",
         R"({"score": 1, "action": "no action", "x": ")" + std::string(100, '[') + "\\\"\"}", true,
         1, SpamAdvice::kNothing},
    };
    for (const auto& each : cases) {
        SCOPED_TRACE(each.name);
        const SpamOpinion opinion = ReadRspamd(each.json);
        EXPECT_EQ(opinion.answered, each.answered);
        EXPECT_EQ(opinion.score, each.score);
        EXPECT_EQ(opinion.advice, each.advice);
        EXPECT_EQ(opinion.why.empty(), each.answered);
    }
}

// What it would add may be no header by which a message is read, and no two.
TEST(Rspamd, HeadersThatMayBeAdded) {
    const SpamOpinion opinion = ReadRspamd(R"({"score": 7, "action": "add header",
        "symbols": {"GOOD_NAME": {}, "bad name": {}, "x\r\ny": {}},
        "milter": {"add_headers": {
            "X-One": "1", "X-Two": {"value": "2", "order": 0}, "X-Three": ["3", {"value": "4"}],
            "X-Folded": "a,\r\n\tb\r\nSubject: c", "Content-Type": "text/html", "Subject": "d",
            "X-Bad\r\nFrom": "e", "X-Number": 5, "X-": "f", "Authentication-Results": "g"}}})");
    const MailHeaders wanted{{"Authentication-Results", "g"},
                             {"X-Folded", "a, b Subject: c"},
                             {"X-One", "1"},
                             {"X-Three", "3"},
                             {"X-Three", "4"},
                             {"X-Two", "2"}};
    EXPECT_EQ(opinion.headers, wanted);
    EXPECT_EQ(opinion.symbols, std::vector<std::string>{"GOOD_NAME"});

    std::string many =
        R"({"score": 7, "action": "add header", "milter": {"add_headers": {"X-A": [)";
    for (int i = 0; i < 1000; ++i) many += (i > 0 ? ",\"" : "\"") + std::string(2000, 'x') + '"';
    const SpamOpinion bounded = ReadRspamd(many + "]}}}");
    EXPECT_EQ(bounded.headers.size(), 20U);
    for (const auto& [name, value] : bounded.headers) EXPECT_LT(value.size(), 900U);
}

TEST(Rspamd, TheEnvelopeMakesNoFieldsOfItsOwn) {
    SpamQuestion question;
    question.bytes = 7;
    question.id = "V1";
    question.sender = "a@example.org\r\nRcpt: x";
    question.recipients = {"b@example.org", "c\n@example.org"};
    question.peer = "192.0.2.1";
    question.helo = "mx\rIP: ::1";
    EXPECT_EQ(RspamdRequest(question),
              "POST /checkv2 HTTP/1.1\r\nHost: rspamd\r\nConnection: close\r\nContent-Length: 7\r\n"
              "Queue-Id: V1\r\nIP: 192.0.2.1\r\nRcpt: <b@example.org>\r\n\r\n");
    question.sender = "";
    question.helo = "mx.example.net";
    EXPECT_NE(RspamdRequest(question).find("\r\nHelo: mx.example.net\r\n"), std::string::npos);
    EXPECT_NE(RspamdRequest(question).find("\r\nFrom: <>\r\n"), std::string::npos);
}

TEST(Spamd, Answers) {
    const struct {
        const char* name;
        std::string_view bytes;
        bool answered;
        double score;
        SpamAdvice advice;
    } cases[] = {
        {"spam",
         "SPAMD/1.1 0 EX_OK\r\nContent-length: 9\r\nSpam: True ; 1004.2 / 5.0\r\n\r\nGTUBE,X_Y",
         true, 1004.2, SpamAdvice::kTag},
        {"no spam", "SPAMD/1.1 0 EX_OK\r\nSpam: False ; -0.1 / 5.0\r\n\r\n", true, -0.1,
         SpamAdvice::kNothing},
        {"an error", "SPAMD/1.0 76 Bad header line: x\r\nSpam: True ; 9 / 5\r\n\r\n", false, 0,
         SpamAdvice::kNothing},
        {"no number", "SPAMD/1.1 0 EX_OK\r\nSpam: True ; nan / 5.0\r\n\r\n", false, 0,
         SpamAdvice::kNothing},
        {"half a line", "SPAMD/1.1 0 EX_OK\r\nSpam: True ; 15.0\r\n\r\n", false, 0,
         SpamAdvice::kNothing},
        {"no word", "SPAMD/1.1 0 EX_OK\r\nSpam: ; 15.0 / 5.0\r\n\r\n", false, 0,
         SpamAdvice::kNothing},
        {"no line", "SPAMD/1.1 0 EX_OK\r\n\r\n", false, 0, SpamAdvice::kNothing},
        {"another protocol", "HTTP/1.1 0 OK\r\nSpam: True ; 15.0 / 5.0\r\n\r\n", false, 0,
         SpamAdvice::kNothing},
    };
    for (const auto& each : cases) {
        SCOPED_TRACE(each.name);
        HeadedReply reply;
        ASSERT_EQ(ReadHeaded(each.bytes, true, reply), Came::kWhole);
        const SpamOpinion opinion = ReadSpamd(reply);
        EXPECT_EQ(opinion.answered, each.answered);
        EXPECT_EQ(opinion.score, each.score);
        EXPECT_EQ(opinion.advice, each.advice);
        if (each.score > 1000) {
            EXPECT_EQ(opinion.symbols, (std::vector<std::string>{"GTUBE", "X_Y"}));
        }
    }
}

TEST(Patience, WhoIsLateIsAskedNowAndThen) {
    const Patience::Clock::time_point start{};
    const auto after = [&](int seconds) { return start + std::chrono::seconds(seconds); };
    Patience patience;
    for (int i = 0; i < 3; ++i) {
        EXPECT_TRUE(patience.MayAsk(after(i))) << i;
        patience.WasLate(after(20));
        if (i == 1) patience.WasInTime();
    }
    EXPECT_TRUE(patience.MayAsk(after(20))) << "one came in between";
    patience.WasLate(after(20));
    patience.WasLate(after(20));
    EXPECT_FALSE(patience.MayAsk(after(20)));
    EXPECT_FALSE(patience.MayAsk(after(29)));
    EXPECT_TRUE(patience.MayAsk(after(30)));
    EXPECT_FALSE(patience.MayAsk(after(31))) << "one is enough";
    patience.WasLate(after(50));
    EXPECT_FALSE(patience.MayAsk(after(51)));
    EXPECT_TRUE(patience.MayAsk(after(60)));
    patience.WasInTime();
    EXPECT_TRUE(patience.MayAsk(after(60)));
    EXPECT_TRUE(patience.MayAsk(after(60)));
}

TEST(SpamFindings, ScoresAndTheEnginesWord) {
    using enum SpamAdvice;
    SpamSettings none;
    SpamSettings all;
    all.tagScore = 5;
    all.quarantineScore = 10;
    all.rejectScore = 20;
    SpamSettings rejects;
    rejects.rejectScore = 20;
    const struct {
        const char* name;
        const SpamSettings& settings;
        double score;
        SpamAdvice advice;
        Action action;
    } cases[] = {
        {"its word: nothing", none, 99, kNothing, Action::kPass},
        {"its word: tag", none, 0, kTag, Action::kTag},
        {"its word: quarantine", none, 0, kQuarantine, Action::kQuarantine},
        {"its word: reject", none, 0, kReject, Action::kReject},
        {"its word: later", none, 0, kPutOff, Action::kPutOff},
        {"below all", all, 4.99, kNothing, Action::kPass},
        {"below ours, whatever it says", all, 4.99, kTag, Action::kPass},
        {"tagged", all, 5, kNothing, Action::kTag},
        {"kept", all, 10, kTag, Action::kQuarantine},
        {"refused", all, 20, kTag, Action::kReject},
        {"refused before it is put off", all, 20, kPutOff, Action::kReject},
        {"put off before it is kept", all, 10, kPutOff, Action::kPutOff},
        {"a reject below our score is a tag", all, 1, kReject, Action::kTag},
        {"or kept by its score", all, 15, kReject, Action::kQuarantine},
        {"only one of ours", rejects, 19, kReject, Action::kTag},
        {"only one of ours, reached", rejects, 20, kNothing, Action::kReject},
        {"skipped, whatever its score", all, 99, kSkip, Action::kPass},
    };
    for (const auto& each : cases) {
        SCOPED_TRACE(each.name);
        SpamOpinion opinion;
        opinion.answered = true;
        opinion.score = each.score;
        opinion.advice = each.advice;
        const Finding finding = SpamFinding(each.settings, opinion);
        EXPECT_EQ(finding.section, Section::kAntispam);
        EXPECT_EQ(finding.action, each.action);
        EXPECT_EQ(finding.log.empty(), each.action == Action::kPass);
        const bool tags = each.action == Action::kTag || each.action == Action::kQuarantine;
        EXPECT_EQ(finding.headers.empty(), !tags);
    }
}

TEST(SpamFindings, WhatATagSays) {
    SpamSettings settings;
    settings.tagScore = 6.5;
    settings.subjectPrefix = "[SPAM]";
    SpamOpinion opinion;
    opinion.answered = true;
    opinion.score = 7.256;
    opinion.symbols = {"A", "B"};
    opinion.headers = {{"X-More", "1"}};
    const Finding finding = SpamFinding(settings, opinion);
    const MailHeaders wanted{{"X-Spam-Score", "7.26"},
                             {"X-Spam-Status", "Yes, score=7.26 required=6.50 tests=A,B"},
                             {"X-More", "1"}};
    EXPECT_EQ(finding.headers, wanted);
    EXPECT_EQ(finding.subjectPrefix, "[SPAM]");
    EXPECT_EQ(finding.reason, "score 7.26");
    EXPECT_EQ(finding.value, 7256);
    EXPECT_EQ(finding.event, kStatSpamTagged);
    opinion.symbols.assign(kMostSymbols, std::string(100, 'S'));
    for (const auto& [name, value] : SpamFinding(settings, opinion).headers)
        EXPECT_LT(name.size() + value.size(), 900U) << "a line has a bound";
}

TEST(SpamFindings, NobodyAnswers) {
    SpamSettings settings;
    EXPECT_EQ(SpamFinding(settings, SpamOpinion::None("x")).action, Action::kPass);
    settings.putOffWhenDown = true;
    const Finding finding = SpamFinding(settings, SpamOpinion::None("x"));
    EXPECT_EQ(finding.action, Action::kPutOff);
    EXPECT_EQ(finding.event, kStatNotScanned);
}

}  // namespace
}  // namespace maild
