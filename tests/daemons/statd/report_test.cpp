#include <algorithm>
#include <cstdlib>
#include <string>
#include <vector>

#include "daemons/statd/report/form.h"
#include "daemons/statd/report/format.h"
#include "daemons/statd/report/table.h"
#include "daemons/statd/store/writer.h"
#include "daemons/statd/web/page.h"
#include "daemons/statd/web/plot.h"
#include "statdb_fixture.h"
#include "text/day.h"

namespace stats {
namespace {

// The reader of the statistics client, rule by rule: words, quotes, backslashes, 511 bytes a word.
class ClientReader {
  public:
    using Rows = std::vector<std::vector<std::string>>;

    explicit ClientReader(std::string text) : text_(std::move(text)) {}

    std::vector<Rows> Tables() {
        std::vector<Rows> tables;
        for (;;) {
            const int rows = std::atoi(Word().c_str());
            if (rows < 1 || Ended()) return tables;
            const int columns = std::atoi(Word().c_str());
            if (columns < 1) return tables;
            Rows table;
            for (int row = 0; row < rows; ++row) {
                std::vector<std::string> cells;
                for (int column = 0; column < columns; ++column) {
                    if (Ended()) return tables;
                    if (std::string cell = Word(); !cell.empty()) cells.push_back(cell);
                }
                if (cells.empty()) return tables;
                table.push_back(cells);
            }
            tables.push_back(table);
        }
    }

  private:
    static bool Blank(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }
    bool Ended() const { return at_ >= text_.size(); }
    void SkipBlanks() {
        while (!Ended() && Blank(text_[at_])) ++at_;
    }
    std::string Word() {
        SkipBlanks();
        std::string word;
        bool quoting = false;
        std::size_t backslashes = 0;
        for (; !Ended(); ++at_) {
            const char c = text_[at_];
            if (!quoting && Blank(c)) break;
            if (c == '"' && backslashes % 2 == 0) {
                if (quoting) {
                    ++at_;
                    break;
                }
                quoting = true;
                continue;
            }
            backslashes = c == '\\' ? backslashes + 1 : 0;
            word += c;
        }
        EXPECT_LE(word.size(), 511U);
        SkipBlanks();
        return word;
    }

    const std::string text_;
    std::size_t at_ = 0;
};

const std::vector<std::string> kNasty = {"<script>alert(1)</script>",
                                         "=cmd|' /C calc'!A0",
                                         "+1",
                                         "-1",
                                         "@x",
                                         "a,\"b\"",
                                         "back\\slash\\",
                                         "\\\"",
                                         " ",
                                         "",
                                         "m\xc3\xbcller",
                                         "\xff\xfe",
                                         "line\r\nend",
                                         std::string("zero\0byte", 9),
                                         std::string(5000, 'x'),
                                         "tab\tbed",
                                         "&amp;"};

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
    const auto tables = ClientReader(text).Tables();
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

// Records of a CSV text by RFC 4180.
std::vector<std::vector<std::string>> ReadCsv(const std::string& text) {
    std::vector<std::vector<std::string>> records(1, std::vector<std::string>(1));
    bool quoted = false;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        std::string& field = records.back().back();
        if (quoted && c == '"' && text[i + 1] == '"') {
            field += text[++i];
        } else if (c == '"') {
            quoted = !quoted;
        } else if (!quoted && c == ',') {
            records.back().emplace_back();
        } else if (!quoted && c == '\r' && text[i + 1] == '\n') {
            ++i;
            records.emplace_back(1);
        } else {
            field += c;
        }
    }
    records.pop_back();
    return records;
}

TEST(ReportFormat, CsvIsOneTableWithoutFormulas) {
    const auto records = ReadCsv(FormatCsv(NastyReport()));
    EXPECT_EQ(records[0], (std::vector<std::string>{"Section", "Name", "Event", "Count", "Bytes"}));
    std::vector<std::string> names;
    for (const auto& record : records) {
        ASSERT_EQ(record.size(), 5U);
        for (const std::string& field : record)
            EXPECT_TRUE(field.empty() ||
                        std::string("=+-@\t\r").find(field[0]) == std::string::npos)
                << field;
        if (record[0] == "Sender domain" && record[2] == "Clean") names.push_back(record[1]);
    }
    ASSERT_EQ(names.size(), kNasty.size());
    EXPECT_EQ(names[1], "'" + kNasty[1]);
    EXPECT_EQ(names[5], kNasty[5]);
    EXPECT_EQ(names[12], kNasty[12]) << "a line end stays inside its quotes";
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
    for (const char* body : {"",
                             "request_type",
                             "request_type=",
                             "request_type=0",
                             "request_type=4",
                             "request_type=1x",
                             "request_type= 1",
                             "request_type=1&request_type=1",
                             "request_type=1&&",
                             "request_type=2",
                             "request_type=2&request_format=9",
                             "request_type=1&time_period=4",
                             "request_type=1&time_period=-1",
                             "request_type=1&date_start=2024-02-30",
                             "request_type=1&date_end=today",
                             "request_type=1&date_start=2024-10-04&date_end=2024-10-03",
                             "request_type=%3",
                             "request_type=1&agent_id=%zz",
                             "request_type=1&agent_id=99999999999",
                             "request_type=99999999999999999999"}) {
        std::string why;
        EXPECT_FALSE(ParseReportForm(body, kDay, why)) << body;
        EXPECT_FALSE(why.empty()) << body;
    }
}

TEST(Plot, AxisStepsAndNumbers) {
    for (std::int64_t most = 1; most < 2000000; most = most * 3 / 2 + 1) {
        const std::int64_t step = AxisStep(most);
        EXPECT_GE(step * 4, most);
        EXPECT_LE((most + step - 1) / step, 5) << most;
    }
    const struct {
        std::int64_t number;
        const char* text;
    } cases[] = {{0, "0"},       {999, "999"},     {1000, "1k"},      {1500, "1.5k"},
                 {30000, "30k"}, {999999, "999k"}, {1200000, "1.2M"}, {4000000000, "4G"}};
    for (const auto& each : cases) EXPECT_EQ(ShortNumber(each.number), each.text);
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
    ASSERT_TRUE(writer.Write(
        std::vector<Record>{record, MakeRecord(kNoon - 2 * kHourSeconds, kStatPeerDenied),
                            MakeRecord(kNoon - 20 * kDaySeconds, kStatClean),
                            MakeRecord(kNoon - 29 * kDaySeconds, 104)}));
    page = OverviewPage(*reader, {}, kNoon, "nonce");
    ASSERT_TRUE(page);
    for (const char* expected :
         {"<th scope=\"row\">Messages</th><td>1</td><td>1</td><td>3</td>",
          "<th scope=\"row\">Peer denied</th><td>1</td>", "<title>12, Infected, refused 1</title>",
          "<title>10, Peer denied 1</title>", "<title>09-05, Not scanned, put off 1</title>",
          "&lt;img src=x&gt;", "Sig&lt;b&gt;", "rcpt.example"}) {
        EXPECT_NE(page->find(expected), std::string::npos) << expected;
    }
    EXPECT_EQ(page->find("<img"), std::string::npos);
    EXPECT_EQ(page->find("http://"), std::string::npos) << "nothing from elsewhere";
    EXPECT_EQ(page->find("https://"), std::string::npos);
}

}  // namespace
}  // namespace stats
