// Reports: the exchange, the file, the tables.
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <set>

#include "http_server.h"
#include "libstats/libstats.h"
#include "libstats/reportfile.h"
#include "libstats/tables.h"
#include "platform/commandline.h"
#include "support/instance.h"
#include "trelis/trelis.h"

namespace {

constexpr char kPortKey[] = "/VTWIN/Daemons/StatsDaemon/HTTPPort";

std::string Content(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

// Reports go to a directory of their own.
class Reports : public testing::Test {
  protected:
    Reports() : folder_(g_instance.Path() + "/reports/") {
        std::filesystem::create_directory(folder_);
        platform::SetCommandLineArguments({"program", folder_});
        EXPECT_EQ(TrelisInit2(), 0);
        EXPECT_EQ(InitLibStats(), 0);
        client_ = GetLibStats()->CreateHTTPClient();
        std::strcpy(query_.Host, "127.0.0.1");
        std::strcpy(query_.DateStart, "2024-01-02");
        std::strcpy(query_.DateEnd, "2024-02-03");
        query_.RequestId = 7;
        query_.Format = 3;
        query_.AgentId = 4;
        query_.TimePeriod = 9;
    }
    ~Reports() override {
        GetLibStats()->ReleaseHTTPClient(&client_);
        EXPECT_EQ(client_, nullptr);
        ReleaseLibStats();
        TrelisUninit();
        platform::SetCommandLineArguments({});
        std::filesystem::permissions(folder_, std::filesystem::perms::owner_all);
        std::filesystem::remove_all(folder_);
    }
    void Register(const HttpServer& server) {
        TrelisSetValue(kLocalStore, kPortKey, std::to_string(server.Port()).c_str());
        ASSERT_EQ(GetLibStats()->AddServer("127.0.0.1", "user", "secret"), 0);
    }
    std::size_t Files() const {
        const std::filesystem::directory_iterator files(folder_);
        return static_cast<std::size_t>(std::distance(begin(files), end(files)));
    }
    std::unique_ptr<ReportTables> Tables(const std::string& text) {
        HttpServer server({"HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(text.size()) +
                           "\r\n\r\n" + text});
        Register(server);
        auto tables = GetLibStats()->GetReportTables(client_, &query_);
        EXPECT_EQ(Files(), 0U);
        return tables;
    }

    const std::string folder_;
    CHTTPClient* client_ = nullptr;
    ReportQuery query_{};
};

TEST_F(Reports, TheRequestIsExact) {
    std::string body(20000, 'b');
    body[100] = '\0';
    HttpServer server({"HTTP/1.0 200\r\nCONTENT-LENGTH:20000\r\n\r\n" + body.substr(0, 9000),
                       body.substr(9000) + "more than was announced"},
                      20);
    Register(server);
    const ReportPath path = GetLibStats()->GetFormattedReportFile(client_, &query_);
    ASSERT_NE(path, nullptr);
    EXPECT_TRUE(Content(path.get()) == body);
    EXPECT_EQ(std::filesystem::path(path.get()).extension(), ".csv");
    EXPECT_EQ(server.Request(),
              "POST / HTTP/1.1\r\nContent-Type: application/x-www-form-urlencoded\r\n"
              "Content-Length: 111\r\nAuthorization: basic dXNlcjpzZWNyZXQ=\r\n\r\n"
              "request_type=2&request_id=7&request_format=3&agent_id=4&time_period=9&"
              "date_start=2024-01-02&date_end=2024-02-03");
}

std::string Repeat(int times, const std::string& text) {
    std::string all;
    for (int i = 0; i < times; ++i) all += text;
    return all;
}

TEST_F(Reports, OnlyAWholeOneGivesAPath) {
    const std::string head = "HTTP/1.1 200 OK\r\nContent-Length: ";
    const struct {
        std::string answer;
        bool path;
        std::size_t files;  // one that was begun stays
    } cases[] = {
        {head + "3\r\n\r\nabc", true, 1},
        {head + "-5\r\n\r\nabc", true, 1},
        {"HTTP/1.1 404 No\r\nContent-Length: 3\r\n\r\nabc", false, 0},
        {"HTTP/1.1\r\nContent-Length: 3\r\n\r\nabc", false, 0},
        {"HTTP/1.1 200 OK\r\n\r\nabc", false, 0},
        {head + "9\r\n\r\nabc", false, 1},
        {head + "4294967299\r\n\r\nabc", false, 1},  // as a 32-bit number this would be 3
        {"HTTP/1.1 200 OK\r\nContent-Le", false, 0},
        {"HTTP/1.1 200 OK\r\n" + Repeat(3000, "X: y\r\n") + "content-length:3\r\n\r\nabc", true, 1},
        {"HTTP/1.1 200 OK\n" + Repeat(9, "no colon\n") + "Content-Length: \t3\n\nabc", true, 1},
        // Headers without end, and such that fill the memory.
        {"HTTP/1.1 200 OK\r\n" + Repeat(100000, "a\r\n"), false, 0},
        {head + "3\r\n" + Repeat(30, "a: " + std::string(9000, 'x') + "\r\n") + "\r\nabc", false,
         0},
        {"", false, 0},
    };
    query_.Format = 9;
    for (const auto& each : cases) {
        SCOPED_TRACE(each.answer.substr(0, 100));
        HttpServer server({each.answer});
        Register(server);
        const std::size_t before = Files();
        const ReportPath path = GetLibStats()->GetFormattedReportFile(client_, &query_);
        EXPECT_EQ(path != nullptr, each.path);
        EXPECT_EQ(Files(), before + each.files);
        EXPECT_TRUE(path == nullptr || path[std::strlen(path.get()) - 1] == '.');
    }
}

TEST_F(Reports, StrangersAndNobodyGetNoConnection) {
    HttpServer server({"HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n"});
    Register(server);
    EXPECT_EQ(GetLibStats()->GetReportFile(nullptr, &query_), nullptr);
    EXPECT_EQ(GetLibStats()->GetReportFile(client_, nullptr), nullptr);
    std::memset(query_.Host, 'x', sizeof query_.Host);
    EXPECT_EQ(GetLibStats()->GetReportTables(client_, &query_), nullptr) << "no zero byte";
    std::strcpy(query_.Host, "127.0.0.1");
    EXPECT_EQ(GetLibStats()->RemoveServer("localhost"), 0) << "the same address";
    EXPECT_EQ(GetLibStats()->GetReportFile(client_, &query_), nullptr);
    EXPECT_EQ(server.Request(), "");
    EXPECT_EQ(Files(), 0U);
}

TEST_F(Reports, ADirectoryThatCannotBeWritten) {
    platform::SetCommandLineArguments({folder_ + "missing/program"});
    EXPECT_EQ(CreateReportFile((folder_ + "missing/").c_str(), "csv"), nullptr);
    EXPECT_EQ(CreateReportFile((folder_ + std::string(300, 'x')).c_str(), "csv"), nullptr);
    HttpServer server({"HTTP/1.1 200 OK\r\nContent-Length: 3\r\n\r\nabc"});
    Register(server);
    EXPECT_EQ(GetLibStats()->GetReportFile(client_, &query_), nullptr);
}

TEST_F(Reports, NamesNeverComeTwice) {
    std::set<std::string> names;
    for (int i = 0; i < 50; ++i) {
        const ReportPath path = CreateReportFile(folder_.c_str(), "txt");
        ASSERT_NE(path, nullptr);
        EXPECT_EQ(std::filesystem::file_size(path.get()), 0U);
        EXPECT_EQ(std::filesystem::path(path.get()).extension(), ".txt");
        names.insert(path.get());
    }
    EXPECT_EQ(names.size(), 50U);
}

TEST(Directory, IsTakenFromTheCommandLine) {
    const struct {
        std::vector<std::string> arguments;
        int size;
        const char* directory;
    } cases[] = {
        {{"C:\\v\\vtreport.exe"}, 260, "C:\\v\\"},
        {{"/usr/bin/program", "debug"}, 260, "/usr/bin/"},
        {{"/usr/bin/program", "D:\\out\\x"}, 260, "D:\\out\\"},
        {{"program"}, 260, "program"},
        {{"/usr/bin/program"}, 5, "/usr"},
    };
    for (const auto& each : cases) {
        platform::SetCommandLineArguments(each.arguments);
        char buffer[260];
        EXPECT_EQ(ProgramDirectory(buffer, each.size), 0);
        EXPECT_STREQ(buffer, each.directory);
    }
    platform::SetCommandLineArguments({});
    EXPECT_NE(platform::CommandLineArguments().at(0).find("test_libstats"), std::string::npos);
}

std::string Show(const std::unique_ptr<ReportTables>& tables) {
    if (tables == nullptr) return "null";
    std::string text;
    for (const ReportTable& table : *tables) {
        text += '{';
        for (const ReportRow& row : table) {
            text += '(';
            for (const std::string& cell : row) text += '<' + cell + '>';
            text += ')';
        }
        text += '}';
    }
    return text;
}

TEST_F(Reports, TablesAreParsed) {
    const std::string big(600, 'w');
    const struct {
        std::string text;
        std::string tables;
    } cases[] = {
        {"2 2 a b c d 1 1 e", "{(<a><b>)(<c><d>)}{(<e>)}"},
        {"1 2 \"x y\" z", "{(<x y><z>)}"},
        {"1 1 a 2 2 b", "{(<a>)}"},
        {"1 2 \"\" b\n", "{(<b>)}"},
        {"1 1 \"\" 1 1 x", ""},
        {" \t1\r\n1\v\fx ", "{(<x>)}"},
        {"1 3 a\"b c\"d e", "{(<ab c><d><e>)}"},
        {"1 2 \"a\\\\\" b", "{(<a\\\\><b>)}"},
        {"1 1 \"open to the end", "{(<open to the end>)}"},
        {"0 1 x", ""},
        {"1 -1 x", ""},
        {"999999999999 999999999999 x", ""},
        {"1 1 " + big, "{(<" + big.substr(0, 511) + ">)}"},
        {std::string("1 2 a b\0 c d", 12), "{(<a><b>)}"},
        {"", "null"},
        // The zero byte ends its piece of 8192 bytes, not the text.
        {"1 2 a" + std::string(1, '\0') + std::string(8186, 'x') + " b", "{(<a><b>)}"},
    };
    for (const auto& each : cases) EXPECT_EQ(Show(Tables(each.text)), each.tables) << each.text;
}

TEST_F(Reports, CredentialsThatFitNoToken) {
    libstats::CLibStats* stats = GetLibStats();
    EXPECT_EQ(stats->AddServer("127.0.0.1", "u", std::string(379, 'p').c_str()), 0);
    EXPECT_EQ(stats->AddServer("127.0.0.1", "u", std::string(382, 'p').c_str()), -1);
    EXPECT_EQ(stats->AddServer("127.0.0.1", nullptr, "p"), -1);
}

TEST_F(Reports, ALaterEntryTakesTheFirstOnesPlace) {
    HttpServer server({"HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n"});
    Register(server);
    EXPECT_EQ(GetLibStats()->AddServer("127.0.0.1", "other", "p"), 0);
    EXPECT_NE(GetLibStats()->GetReportFile(client_, &query_), nullptr);
    EXPECT_NE(server.Request().find("basic b3RoZXI6cA==\r\n"), std::string::npos);
}

TEST_F(Reports, WithoutAUsablePortTheDefaultIsTaken) {
    for (const char* port : {"", "0", "-3", "none"}) {
        TrelisSetValue(kLocalStore, kPortKey, port);
        if (*port == '\0') TrelisDelKey(kLocalStore, kPortKey);
        EXPECT_EQ(GetLibStats()->AddServer("127.0.0.1", "u", "p"), 0);
        HttpServer server({"HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n"}, 0, 8484);
        if (server.Port() != 8484) GTEST_SKIP() << "somebody else's";
        EXPECT_NE(GetLibStats()->GetReportFile(client_, &query_), nullptr) << port;
    }
}

TEST_F(Reports, WhatIsNoPortIsNotReplaced) {
    HttpServer server({"HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n"}, 0, 8484);
    TrelisSetValue(kLocalStore, kPortKey, "70000");
    ASSERT_EQ(GetLibStats()->AddServer("127.0.0.1", "u", "p"), 0);
    EXPECT_EQ(GetLibStats()->GetReportFile(client_, &query_), nullptr);
    EXPECT_EQ(server.Request(), "") << "the credentials are for another";
}

}  // namespace
