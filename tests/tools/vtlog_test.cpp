// What vtlog makes of lines of the log, of times and of files.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

#include "daemons/logd/describe.h"
#include "daemons/logd/reader/entry.h"
#include "daemons/logd/reader/filter.h"
#include "daemons/logd/reader/log_files.h"
#include "daemons/logd/reader/times.h"
#include "logclient/line.h"

namespace {

namespace fs = std::filesystem;

constexpr char kText[] =
    "time=2026-01-31T23:59:59.007Z event=message session=0abc id=0abc-1 peer=2001:db8::7 "
    "from=S@example.org to=a@example.org;b@example.net size=12 verdict=reject "
    R"(reason="x \"y\" \x1B\\" reply="")";
constexpr char kJson[] =
    R"({"time":"2026-01-31T23:59:59.007Z","event":"message","session":"0abc","id":"0abc-1",)"
    R"("peer":"2001:db8::7","from":"S@example.org","to":"a@example.org;b@example.net","size":12,)"
    R"("verdict":"reject","reason":"x \"y\" \u001b\\","reply":""})";

TEST(VtlogEntry, BothFormatsSayTheSame) {
    const auto text = ParseRecord(kText);
    const auto json = ParseRecord(kJson);
    ASSERT_TRUE(text && json);
    for (const auto& each : {*text, *json}) {
        EXPECT_EQ(each.at, 1769903999007);
        ASSERT_NE(each.Find("reason"), nullptr);
        EXPECT_EQ(*each.Find("reason"), "x \"y\" \x1b\\");
        EXPECT_EQ(RecordAsText(each), kText);
        EXPECT_EQ(RecordAsJson(each), kJson);
    }
}

// Whatever a stranger says, it is one value of one line, and comes back as it was.
TEST(VtlogEntry, AnyBytesComeBack) {
    std::mt19937 random(7);
    constexpr std::string_view kOften = "\"\\= x\n\xc2\x80\xff,:{}u0";
    for (int i = 0; i < 20000; ++i) {
        std::string helo;
        for (std::size_t length = random() % 12; helo.size() < length;)
            helo += random() % 2 == 0 ? kOften[random() % kOften.size()]
                                      : static_cast<char>(random() % 256);
        std::string line;
        LogLineWriter writer(line, LogLineKind::kSession, 1769903999007);
        for (const std::string& text : {std::string("s"), std::string(), helo, helo, std::string()})
            writer.Text(text);
        writer.Number(1);
        writer.Text("quit");
        writer.Number(2);
        writer.End();
        for (char& each : helo) {
            if (each == '\0' || each == '\x1E' || each == '\x1F') each = '?';
        }
        for (const LogFormat format : {LogFormat::kText, LogFormat::kJson}) {
            std::string_view rest = line;
            LogLineReader reader;
            ASSERT_TRUE(reader.Next(rest));
            const std::string written = DescribeLine(reader, format).line;
            ASSERT_EQ(written.find('\n'), std::string::npos) << written;
            const auto record = ParseRecord(written);
            ASSERT_TRUE(record) << written;
            ASSERT_EQ(record->fields.size(), std::size(kSessionLineFields)) << written;
            ASSERT_EQ(*record->Find("ended"), "quit");
            // In JSON a byte that is no UTF-8 comes back as the text that says which.
            const bool exact =
                format == LogFormat::kText || written.find("\\\\x") == std::string::npos;
            ASSERT_TRUE(!exact || *record->Find("helo") == helo) << written;
            ASSERT_EQ(format == LogFormat::kText ? RecordAsText(*record) : RecordAsJson(*record),
                      written);
        }
    }
}

TEST(VtlogEntry, OrdinaryEvents) {
    const auto event =
        ParseRecord(R"(2026-01-31T23:59:59Z high Warning source="p" message="a=b c")");
    ASSERT_TRUE(event);
    EXPECT_EQ(RecordAsJson(*event),
              R"({"time":"2026-01-31T23:59:59Z","event":"warning","level":"high","source":"p",)"
              R"("message":"a=b c"})");
    const auto json = ParseRecord(RecordAsJson(*event));
    ASSERT_TRUE(json);
    EXPECT_EQ(RecordAsText(*json),
              R"(2026-01-31T23:59:59Z high warning source="p" message="a=b c")");
}

TEST(VtlogEntry, WhatIsNoLineIsNone) {
    for (const char* line : {"",
                             "x",
                             "time=",
                             "time=2026-01-31T23:59:59Z",
                             "time=2026-01-31T23:59:59Z event=",
                             "time=yesterday event=message",
                             "time=2026-01-31T23:59:59Z event=message from",
                             "time=2026-01-31T23:59:59Z event=message from=\"a",
                             "time=2026-01-31T23:59:59Z event=message from=\"a\"b=c",
                             "time=2026-01-31T23:59:59Z event=message from=\"a\\",
                             "2026-01-31T23:59:59Z high",
                             "{",
                             "{}",
                             R"({"time":"2026-01-31T23:59:59Z"})",
                             R"({"time":1})",
                             R"({"time":"x)",
                             R"({"time":"2026-01-31T23:59:59Z","event":"message"}x)",
                             R"({"time":"2026-01-31T23:59:59Z","event":"message","a":[1]})",
                             R"({"time":"2026-01-31T23:59:59Z","event":"message","a":"\u12"})",
                             R"({"time":"2026-01-31T23:59:59Z","event":"message","a":"\q"})"})
        EXPECT_FALSE(ParseRecord(line)) << line;
}

TEST(VtlogEntry, EscapesOfJson) {
    const auto fields =
        ParseJsonObject(R"({"a":"\u00e9\u20ac\ud83d\ude00","b":"\ud83d!\udc00","c":"\b\/\t"} )");
    ASSERT_TRUE(fields);
    EXPECT_EQ((*fields)[0].value, "\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80");
    EXPECT_EQ((*fields)[1].value, "\xef\xbf\xbd!\xef\xbf\xbd");
    EXPECT_EQ((*fields)[2].value, "\b/\t");
}

TEST(VtlogTimes, AsPeopleWriteThem) {
    constexpr std::int64_t kNow = 1769903999007;
    constexpr std::int64_t kDay = 1769817600000;  // 2026-01-31
    const struct {
        const char* text;
        std::int64_t at;  // 0: none
    } rows[] = {
        {"2026-01-31", kDay},
        {"2026-01-31T01:02", kDay + 3720000},
        {"2026-01-31 01:02:03", kDay + 3723000},
        {"2026-01-31T01:02:03Z", kDay + 3723000},
        {"2026-01-31T01:02:03.4Z", kDay + 3723400},
        {"2026-01-31T01:02:03.45678", kDay + 3723456},
        {"0s", kNow},
        {"90m", kNow - 5400000},
        {"2h", kNow - 7200000},
        {"3d", kNow - 259200000},
        {"1w", kNow - 604800000},
        {"", 0},
        {"2", 0},
        {"-2h", 0},
        {"2y", 0},
        {"2hh", 0},
        {"99999999999h", 0},
        {"2026-02-30", 0},
        {"2026-01-31T24:00", 0},
        {"2026-01-31T1:02", 0},
        {"2026-01-31T01:02:03.", 0},
        {"2026-01-31T01:02:03x", 0},
        {"2026-01-31x", 0},
    };
    for (const auto& row : rows)
        EXPECT_EQ(ParseWhen(row.text, kNow).value_or(0), row.at) << row.text;
}

TEST(VtlogFilter, AllThatIsGivenHasToFit) {
    const auto record = ParseRecord(kText);
    const auto event = ParseRecord("2026-01-31T23:59:59Z high Warning message=\"x\"");
    ASSERT_TRUE(record && event);
    using F = LogFilter;
    const auto with = [](auto set) {
        F filter;
        set(filter);
        return filter;
    };
    const struct {
        const char* what;
        F filter;
        bool fits;
    } rows[] = {
        {"nothing", {}, true},
        {"sender, any case", with([](F& f) { f.from = "s@EXAMPLE.org"; }), true},
        {"its domain", with([](F& f) { f.from = "@example.org"; }), true},
        {"the end of its domain", with([](F& f) { f.from = "@ample.org"; }), false},
        {"another", with([](F& f) { f.from = "t@example.org"; }), false},
        {"second recipient", with([](F& f) { f.to = "b@example.net"; }), true},
        {"part of one", with([](F& f) { f.to = "b@example"; }), false},
        {"a domain of them", with([](F& f) { f.to = "@example.net"; }), true},
        {"message", with([](F& f) { f.id = "0abc-1"; }), true},
        {"session", with([](F& f) { f.id = "0abc"; }), true},
        {"another message", with([](F& f) { f.id = "0abc-11"; }), false},
        {"verdict", with([](F& f) { f.verdict = "reject"; }), true},
        {"another verdict", with([](F& f) { f.verdict = "drop"; }), false},
        {"peer", with([](F& f) { f.peer = IpNetwork::Parse("2001:db8:0::7"); }), true},
        {"its network", with([](F& f) { f.peer = IpNetwork::Parse("2001:db8::/32"); }), true},
        {"another peer", with([](F& f) { f.peer = IpNetwork::Parse("192.0.2.7"); }), false},
        {"since then", with([](F& f) { f.since = 1769903999007; }), true},
        {"since later", with([](F& f) { f.since = 1769903999008; }), false},
        {"until then", with([](F& f) { f.until = 1769903999007; }), false},
        {"until later", with([](F& f) { f.until = 1769903999008; }), true},
        {"both", with([](F& f) {
             f.id = "0abc";
             f.verdict = "drop";
         }),
         false},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(row.filter.Fits(*record), row.fits) << row.what;
        const bool bounded = row.filter.since || row.filter.until;
        EXPECT_EQ(bounded || row.filter.Fits(*event), bounded || &row == &rows[0])
            << row.what << ", of an event";
    }
}

class VtlogFiles : public testing::Test {
  protected:
    VtlogFiles() {
        std::string place = (fs::temp_directory_path() / "vtlog.XXXXXX").string();
        EXPECT_NE(mkdtemp(place.data()), nullptr);
        directory = place;
        path = place + "/log";
    }
    ~VtlogFiles() override { fs::remove_all(directory); }
    void Append(const std::string& text, const std::string& suffix = "") const {
        std::ofstream(path + suffix, std::ios::app) << text;
    }
    static std::vector<std::string> Lines(LogReader& reader) {
        std::vector<std::string> lines;
        for (std::string_view line; reader.Next(line);) lines.emplace_back(line.substr(0, 100));
        return lines;
    }
    fs::path directory;
    std::string path;
};

using Texts = std::vector<std::string>;

TEST_F(VtlogFiles, TheOldestFirst) {
    EXPECT_TRUE(LogFiles(path).OpenAll().empty());
    Append("3\n4\n");
    Append("2\n", ".1");
    Append("1\n", ".3");
    Append("never\n", ".5");
    Texts all;
    for (LogReader& each : LogFiles(path).OpenAll()) {
        for (const std::string& line : Lines(each)) all.push_back(line);
    }
    EXPECT_EQ(all, (Texts{"1", "2", "3", "4"}));
}

TEST_F(VtlogFiles, LinesWhateverTheirLength) {
    Append("one\n" + std::string(LogReader::kLongestLine * 2, 'x') + "\n" +
           std::string(200000, 'y') + "\n\nhalf");
    LogReader reader = LogReader::Open(path);
    EXPECT_EQ(Lines(reader), (Texts{"one", std::string(100, 'y'), ""}));
    Append(" and half\n");
    EXPECT_EQ(Lines(reader), (Texts{"half and half"}));
}

TEST_F(VtlogFiles, FollowedOverRotations) {
    const LogFiles files(path);
    Append("old\n");
    LogReader reader = files.OpenNewest();
    reader.SkipToEnd();
    Append("1\n");
    fs::rename(path, path + ".1");
    Append("2\n");
    fs::rename(path + ".1", path + ".2");
    fs::rename(path, path + ".1");
    Append("3\n");
    Texts all;
    while (reader) {
        for (const std::string& line : Lines(reader)) all.push_back(line);
        reader = files.OpenNext(reader);
    }
    EXPECT_EQ(all, (Texts{"1", "2", "3"}));
    reader = files.OpenNewest();
    fs::remove(path);
    EXPECT_FALSE(files.OpenNext(reader)) << "there is none yet";
    Append("4\n");
    EXPECT_TRUE(files.OpenNext(reader)) << "begun anew";
}

}  // namespace
