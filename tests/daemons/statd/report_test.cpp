#include <algorithm>
#include <string>
#include <vector>

#include "daemons/statd/report/form.h"
#include "daemons/statd/report/format.h"
#include "daemons/statd/report/table.h"
#include "daemons/statd/store/writer.h"
#include "daemons/statd/web/page.h"
#include "libstats/tables.h"
#include "statdb_fixture.h"
#include "text/day.h"

namespace stats {
namespace {

const std::vector<std::string> kNasty = {
    "<script>alert(1)</script>", "=cmd|' /C calc'!A0", "+1", "-1", "@x",
    // What ends a field, a word, a line.
    "a,\"b\"", "back\\slash\\", "\\\"", " ", "", "m\xc3\xbcller", "\xff\xfe", "line\r\nend",
    std::string("zero\0byte", 9), std::string(5000, 'x'), "tab\tbed", "&amp;"};

Report NastyReport() {
    Report report;
    report.firstDay = kDay;
    report.lastDay = kDay;
    report.codes = {{kStatClean, 1, 5}, {-7, 1, 0}};
    Counts counts;
    counts.events[0] = 3;
    counts.events[kStatOtherGroup] = 1;
    report.totals = counts;
    report.days.push_back({"2024-10-04", counts});
    NameList list{Kind::kSenderDomain, "Sender domains", "Sender domain", {}};
    for (const std::string& name : kNasty) list.rows.push_back({name, counts});
    report.lists = {list, {Kind::kPeer, "Peers", "Peer", {}}};
    return report;
}

TEST(ReportFormat, TheClientReadsAllTables) {
    const Report report = NastyReport();
    const std::string text = FormatTables(report);
    EXPECT_EQ(text.find('\0'), std::string::npos);
    const auto parsed = ParseTables(text.c_str());
    ASSERT_NE(parsed, nullptr);
    const ReportTables& tables = *parsed;
    const auto expected = MakeTables(report);
    ASSERT_EQ(tables.size(), expected.size());
    for (std::size_t i = 0; i < tables.size(); ++i) {
        ASSERT_EQ(tables[i].size(), expected[i].rows.size() + 1) << expected[i].title;
        EXPECT_EQ(tables[i][0], expected[i].headings);
        for (const auto& row : tables[i]) EXPECT_EQ(row.size(), expected[i].headings.size());
    }
    const auto& names = tables[2];
    EXPECT_EQ(names[1][0], kNasty[0]);
    EXPECT_EQ(names[7][0], "back/slash/");
    EXPECT_EQ(names[10][0], "-") << "an empty word would vanish";
    EXPECT_EQ(names[6][1], "4");
}

TEST(ReportFormat, CsvHoldsNoFormulas) {
    const std::string csv = FormatCsv(NastyReport());
    EXPECT_TRUE(csv.starts_with("Section,Name,Event,Count,Bytes\r\n"));
    for (const char* start : {"=", "+", "-", "@", "\t"}) {
        EXPECT_EQ(csv.find(std::string(",") + start), std::string::npos) << start;
        EXPECT_EQ(csv.find(std::string(",\"") + start), std::string::npos) << start;
    }
    EXPECT_NE(csv.find("'=cmd|' /C calc'!A0"), std::string::npos);
    EXPECT_NE(csv.find("\"a,\"\"b\"\"\""), std::string::npos);
    EXPECT_NE(csv.find("\"line\r\nend\""), std::string::npos);
}

TEST(ReportFormat, HtmlHoldsNoForeignMarkup) {
    const std::string html = FormatHtml(NastyReport(), "abc");
    EXPECT_EQ(html.find("<script"), std::string::npos);
    EXPECT_NE(html.find("&lt;script&gt;alert(1)&lt;/script&gt;"), std::string::npos);
    EXPECT_NE(html.find("&amp;amp;"), std::string::npos);
    EXPECT_EQ(html.find("style=\""), std::string::npos) << "the policy lets none through";
}

TEST(ReportFormat, TextIsAligned) {
    Report report = NastyReport();
    report.lists.clear();
    const std::string text = FormatText(report);
    EXPECT_NE(text.find("\nEvent     Code  Total  Bytes\nClean      100      1      5\n"),
              std::string::npos)
        << text;
    report.totals = {};
    EXPECT_NE(FormatText(report).find("No records"), std::string::npos);
}

TEST(ReportForm, TheClientsOwnFormAndThePeriods) {
    const std::string head = "request_id=1&request_format=0&agent_id=4&";
    const struct {
        std::string body;
        ReportFormat format;
        std::int64_t first;
        std::int64_t last;
    } cases[] = {
        {"request_type=1&" + head + "time_period=0&date_start=2024-10-01&date_end=2024-10-04",
         ReportFormat::kText, kDay - 3, kDay},
        {"request_type=3&" + head + "time_period=0&date_start=&date_end=", ReportFormat::kTables,
         kDay - 29, kDay},
        {"request_type=3&time_period=1", ReportFormat::kTables, kDay, kDay},
        {"request_type=2&request_format=3&time_period=2", ReportFormat::kCsv, kDay - 6, kDay},
        {"request_type=2&request_format=1&time_period=3&date_start=2024-10-04&date_end=2024-10-01",
         ReportFormat::kHtml, kDay - 29, kDay},
        {"request_type=%31&date_end=2024%2d10%2D04&other=x", ReportFormat::kText, kDay - 29, kDay},
        {"request_type=1&date_start=2024-10-04", ReportFormat::kText, kDay, kDay},
    };
    for (const auto& each : cases) {
        std::string why;
        const auto asked = ParseReportForm(each.body, kDay, why);
        ASSERT_TRUE(asked) << each.body << ": " << why;
        EXPECT_EQ(asked->format, each.format) << each.body;
        EXPECT_EQ(asked->firstDay, each.first) << each.body;
        EXPECT_EQ(asked->lastDay, each.last) << each.body;
    }
}

TEST(ReportForm, AnythingElseIsRefused) {
    for (const char* body :
         {"", "request_type", "request_type=4", "request_type=1&request_type=1", "request_type=1&&",
          "request_type=2", "request_type=2&request_format=9", "request_type=1&time_period=4",
          "request_type=1&date_start=2024-02-30",
          "request_type=1&date_start=2024-10-04&date_end=2024-10-03", "request_type=%3",
          "request_type=1&agent_id=99999999999"}) {
        std::string why;
        EXPECT_FALSE(ParseReportForm(body, kDay, why)) << body;
        EXPECT_FALSE(why.empty()) << body;
    }
}

class Page : public StatFixture {};

TEST_F(Page, EmptyAndFilled) {
    const auto reader = ReportReader::Open(path_);
    ASSERT_NE(reader, nullptr);
    auto page = OverviewPage(*reader, {}, kNoon, "nonce");
    ASSERT_TRUE(page);
    EXPECT_NE(page->find("No records yet"), std::string::npos);
    EXPECT_EQ(page->find("<svg class=\"plot\""), std::string::npos);

    Writer writer(*database_);
    Record record = MakeRecord(kNoon, kStatInfectedRefused, "u@<img src=x>", "r@rcpt.example");
    record.label = "Sig<b>";
    ASSERT_TRUE(writer.Write(std::vector<Record>{
        record, MakeRecord(kNoon - 2 * kHourSeconds, kStatPeerDenied),
        MakeRecord(kNoon - 20 * kDaySeconds, kStatClean), MakeRecord(kNoon - 29 * kDaySeconds, 104),
        MakeRecord(kNoon, kStatQuarantined),
        MakeRecord(kNoon - 29 * kDaySeconds, kStatSpamQuarantined)}));
    page = OverviewPage(*reader, {}, kNoon, "nonce");
    ASSERT_TRUE(page);
    for (const char* expected : {"<th scope=\"row\">Messages</th><td>2</td><td>2</td><td>5</td>",
                                 "<th scope=\"row\">Quarantined</th><td>1</td><td>1</td><td>2</td>",
                                 "<th scope=\"row\">Peer denied</th><td>1</td>",
                                 "<title>12, Infected, refused 1, Quarantined 1</title>",
                                 "<title>10, Peer denied 1</title>",
                                 "<title>09-05, Not scanned, put off 1, Quarantined 1</title>",
                                 "&lt;img src=x&gt;", "Sig&lt;b&gt;", "rcpt.example"}) {
        EXPECT_NE(page->find(expected), std::string::npos) << expected;
    }
    for (std::size_t group = 0; group < kStatOtherGroup; ++group)
        EXPECT_NE(page->find(".s" + std::to_string(group) + " { fill"), std::string::npos) << group;
    EXPECT_EQ(page->find("<img"), std::string::npos);
    EXPECT_EQ(page->find("http://"), std::string::npos) << "nothing from elsewhere";
    EXPECT_EQ(page->find("https://"), std::string::npos);
}

}  // namespace
}  // namespace stats
