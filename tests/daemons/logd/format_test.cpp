// Lines of the log: strangers' texts in both formats, and what the system's journal gets.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <filesystem>
#include <string>
#include <vector>

#include "daemons/logd/describe.h"
#include "daemons/logd/quote.h"
#include "daemons/logd/system_log.h"
#include "logclient/logclient.h"
#include "platform/descriptor.h"
#include "tagmsg/owned.h"
#include "tagmsg/tags.h"

namespace {

TEST(LogQuote, NoTextLooksLikeOurs) {
    const struct {
        std::string text;
        const char* word;
        const char* json;
    } rows[] = {
        {"", R"("")", R"("")"},
        {"a@b.example", "a@b.example", R"("a@b.example")"},
        {"<>", "<>", R"("<>")"},
        {"two words", R"("two words")", R"("two words")"},
        {"x verdict=forward", R"("x verdict=forward")", R"("x verdict=forward")"},
        {"x=y", R"("x=y")", R"("x=y")"},
        {R"(a" b="c)", R"("a\" b=\"c")", R"("a\" b=\"c")"},
        {R"(a\)", R"("a\\")", R"("a\\")"},
        {"a\nevent=message", R"("a\x0Aevent=message")", R"("a\u000aevent=message")"},
        {"\x1b[1m\x7f", R"("\x1B[1m\x7F")", R"("\u001b[1m\u007f")"},
        {"\xc3\xa9", "\"\xc3\xa9\"", "\"\xc3\xa9\""},
        {"\xc2\x9b", R"("\xC2\x9B")", R"("\u009b")"},
        {"\xff", R"("\xFF")", R"("\\xFF")"},
        {"\xc3(", R"("\xC3(")", R"("\\xC3(")"},
        {"\xe2\x82", R"("\xE2\x82")", R"("\\xE2\\x82")"},
        {"\xed\xa0\x80", R"("\xED\xA0\x80")", R"("\\xED\\xA0\\x80")"},
    };
    for (const auto& row : rows) {
        std::string word;
        std::string json;
        AppendWord(word, row.text);
        AppendJson(json, row.text);
        EXPECT_EQ(word, row.word);
        EXPECT_EQ(json, row.json);
    }
}

// 2026-01-31T23:59:59.007Z
constexpr std::int64_t kMoment = 1769903999007;

std::string SessionLine(const std::string& helo) {
    std::string line;
    LogLineWriter writer(line, LogLineKind::kSession, kMoment);
    for (const std::string& text : {std::string("0abc"), std::string("192.0.2.7"), std::string()})
        writer.Text(text);
    writer.Text(helo);
    writer.Text("TLSv1.3 X");
    writer.Number(2);
    writer.Text("quit");
    writer.Number(-1);
    writer.End();
    return line;
}

TEST(LogLine, GoesThroughAsItWas) {
    const std::string two = SessionLine("me") + SessionLine(std::string("a\x1e\x1f\0b", 5));
    std::string_view rest = two;
    LogLineReader reader;
    ASSERT_TRUE(reader.Next(rest));
    LogLineReader again = reader;
    EXPECT_EQ(
        DescribeLine(reader, LogFormat::kText).line,
        "time=2026-01-31T23:59:59.007Z event=session session=0abc peer=192.0.2.7 told_by=\"\" "
        "helo=me tls=\"TLSv1.3 X\" messages=2 ended=quit duration_ms=-1");
    EXPECT_EQ(DescribeLine(again, LogFormat::kJson).line,
              R"({"time":"2026-01-31T23:59:59.007Z","event":"session","session":"0abc",)"
              R"("peer":"192.0.2.7","told_by":"","helo":"me","tls":"TLSv1.3 X","messages":2,)"
              R"("ended":"quit","duration_ms":-1})");
    ASSERT_TRUE(reader.Next(rest));
    EXPECT_NE(DescribeLine(reader, LogFormat::kText).text.find(" helo=a???b "), std::string::npos);
    EXPECT_FALSE(reader.Next(rest));
    EXPECT_TRUE(rest.empty());
}

TEST(LogLine, WhatCannotBeReadStays) {
    const std::string good = SessionLine("me");
    for (const std::string& bad :
         {std::string("x"), std::string("\x1e"), std::string("q1\x1f\x1e"),
          std::string("k1\x1f\x1e"), std::string("s\x1f\x1e"), std::string("s12\x1e"),
          good.substr(0, good.size() - 1), "m" + good.substr(1),
          "s1\x1f" + good.substr(good.find('\x1f'))}) {
        std::string_view rest = bad;
        LogLineReader reader;
        EXPECT_FALSE(reader.Next(rest));
        EXPECT_EQ(rest, bad);
    }
}

TEST(LogLine, TheJournalGetsItsFieldsApart) {
    const std::string line = SessionLine("a\nPRIORITY=0");
    std::string_view rest = line;
    LogLineReader reader;
    ASSERT_TRUE(reader.Next(rest));
    EXPECT_EQ(JournalFields(6, "the text", reader),
              std::string("MESSAGE=the text\nPRIORITY=6\nSYSLOG_FACILITY=2\n"
                          "SYSLOG_IDENTIFIER=vantrel\nVANTREL_TIME_MS=1769903999007\n"
                          "VANTREL_EVENT=session\nVANTREL_SESSION=0abc\nVANTREL_PEER=192.0.2.7\n") +
                  std::string("VANTREL_HELO\n\x0c\0\0\0\0\0\0\0a\nPRIORITY=0\n", 34) +
                  "VANTREL_TLS=TLSv1.3 X\nVANTREL_MESSAGES=2\nVANTREL_ENDED=quit\n"
                  "VANTREL_DURATION_MS=-1\n");
}

TEST(LogLine, TheJournalIsToldByItsSocketAsTheLevelSays) {
    std::string place = (std::filesystem::temp_directory_path() / "journal.XXXXXX").string();
    ASSERT_NE(mkdtemp(place.data()), nullptr);
    const std::string path = place + "/socket";
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    const platform::UniqueDescriptor journal(socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK, 0));
    ASSERT_EQ(bind(journal.Get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    const std::string line = SessionLine("me");
    std::string_view rest = line;
    LogLineReader reader;
    ASSERT_TRUE(reader.Next(rest));
    SystemLog log;
    log.Open(path.c_str());
    const struct {
        std::uint32_t level;
        const char* priority;  // null: none is told
    } rows[] = {{kLevelHigh, "PRIORITY=5\n"}, {kLevelMedium, "PRIORITY=6\n"}, {kLevelLow, nullptr}};
    for (const auto& row : rows) {
        log.TellLine(kEventInfo | row.level, "text", reader);
        char got[2000];
        const ssize_t count = recv(journal.Get(), got, sizeof got, 0);
        ASSERT_EQ(count > 0, row.priority != nullptr);
        if (count <= 0) continue;
        const std::string text(got, static_cast<std::size_t>(count));
        EXPECT_NE(text.find(row.priority), std::string::npos) << text;
        EXPECT_NE(text.find("VANTREL_DURATION_MS=-1\n"), std::string::npos) << text;
    }
    std::filesystem::remove_all(place);
    log.TellLine(kEventInfo | kLevelHigh, "nobody is there any more", reader);
}

TEST(LogEvent, InBothFormats) {
    const std::int32_t word = kEventVirus | kLevelLow;
    OwnedFlatForm flat;
    const TagMsgField fields[] = {{TagSource, "prog"},
                                  {TagEventWord, &word},
                                  {TagFrom, "a@b"},
                                  {TagDetails, "x \"y\""},
                                  {TagNumberText, "0"}};
    ASSERT_EQ(TagMsgFlatten(fields, flat), TAGMSG_OK);
    OwnedMessage event;
    ASSERT_EQ(event.Parse(flat.data, flat.length), TAGMSG_OK);
    const auto bits = static_cast<std::uint32_t>(word);
    const std::string text = R"(low Virus source="prog" from="a@b" details="x \"y\"" number="0")";
    const LogEntry asText = DescribeEvent(event.root, bits, LogFormat::kText);
    EXPECT_EQ(asText.text, text);
    EXPECT_EQ(asText.line.substr(asText.line.find(' ') + 1), text);
    const LogEntry asJson = DescribeEvent(event.root, bits, LogFormat::kJson);
    EXPECT_EQ(asJson.text, text) << "the system's log gets the text in any case";
    EXPECT_EQ(asJson.line.substr(asJson.line.find(",\"event")),
              R"(,"event":"virus","level":"low","source":"prog","from":"a@b",)"
              R"("details":"x \"y\"","number":0})");
}

}  // namespace
