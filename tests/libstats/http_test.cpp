// The HTTP client against a server that says anything.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "http_server.h"
#include "libstats/httpclient.h"

namespace {

std::string ReadLineOf(CHTTPClient& client, unsigned size = 1024) {
    std::vector<char> line(size, 'x');
    return client.ReadResponseLine(line.data(), size) == 1 ? line.data() : "(failed)";
}

std::string Header(CHTTPClient& client, const char* name) {
    const char* value = client.GetHeader(name);
    return value == nullptr ? "(none)" : value;
}

std::string Repeat(int times, const std::string& text) {
    std::string all;
    for (int i = 0; i < times; ++i) all += text;
    return all;
}

TEST(Http, HeadersAreReadToTheirEnd) {
    const struct {
        const char* name;
        std::string section;
        const char* header;
        std::string value;
        std::string behind;  // what a read behind the section finds
    } cases[] = {
        {"Plain", "Content-Length: 12\r\n\r\nbody\n", "content-LENGTH", "12", "body\n"},
        {"NoBlankLowerCase", "content-length:12\r\n\r\nbody\n", "Content-Length", "12", "body\n"},
        {"TwoCarriageReturnsGo", "a: 1\r\r\r\n\r\r\nbody\n", "a", "1\r", "body\n"},
        {"BlanksAndTabsBeforeKeptBehind", "a: \t 1 \t\r\n\r\nbody\n", "a", "1 \t", "body\n"},
        {"FirstOfTwo", "A: 1\r\na: 2\r\n\r\nbody\n", "a", "1", "body\n"},
        {"NoColonIsSkipped", "nonsense\r\na: 1\r\n\r\nbody\n", "a", "1", "body\n"},
        {"BrokenOffKeepsWhatCame", "a: 1\r\nb: 2", "a", "1", "(failed)"},
        {"LongLineIsCut", "a: " + std::string(9995, 'x') + "\r\n\r\nbody\n", "a",
         std::string(9994, 'x'), "(failed)"},
        {"Many", Repeat(2000, "a: 1\r\n") + "z: 2\r\n\r\nbody\n", "z", "2", "body\n"},
        {"TooManyWithoutColon", Repeat(100000, "a\r\n"), "a", "(none)", "(failed)"},
        {"TooLarge", Repeat(30, "a: " + std::string(9000, 'x') + "\r\n") + "\r\nbody\n", "a",
         "(none)", "(failed)"},
    };
    for (const auto& each : cases) {
        SCOPED_TRACE(each.name);
        HttpServer server({each.section});
        CHTTPClient client;
        ASSERT_EQ(client.ConnectTo("127.0.0.1", server.Port()), 0);
        client.SendText("GET\r\n\r\n");
        EXPECT_EQ(client.ReadHeaders(), 0);
        EXPECT_EQ(Header(client, each.header), each.value);
        EXPECT_EQ(ReadLineOf(client), each.behind);
        client.CloseConnection();
        EXPECT_EQ(client.GetHeader(each.header), nullptr);
    }
}

TEST(Http, LinesAndBodies) {
    HttpServer server({"sho", "rt\n", "0123", "456789", "cut"}, 30);
    CHTTPClient client;
    ASSERT_EQ(client.ConnectTo("127.0.0.1", server.Port()), 0);
    client.SendText("GET\r\n\r\n");
    char buffer[16] = "untouched";
    EXPECT_EQ(client.ReadResponseLine(buffer, 2), -1);
    EXPECT_STREQ(buffer, "untouched");
    EXPECT_EQ(ReadLineOf(client), "short\n") << "a server that is slow";
    EXPECT_EQ(client.ReadBody(buffer, 10), 0);
    EXPECT_STREQ(buffer, "0123456789");
    EXPECT_EQ(client.ReadBody(buffer, 0), 0);
    EXPECT_STREQ(buffer, "");
    EXPECT_EQ(client.ReadBody(buffer, 4), -1) << "closed in the middle";
    EXPECT_EQ(client.SendText(""), 1);
}

TEST(Http, FormattedTextFitsOrStaysHere) {
    HttpServer server({"answer\n"});
    CHTTPClient client;
    ASSERT_EQ(client.ConnectTo("127.0.0.1", server.Port()), 0);
    const std::string most(9996, 'a');
    EXPECT_EQ(client.SendFormat("%s12345", most.c_str()), 1);
    EXPECT_EQ(client.SendFormat("%s\r\n\r\n", most.c_str()), 1);
    EXPECT_EQ(ReadLineOf(client), "answer\n");
    EXPECT_TRUE(server.Request() == most + "\r\n\r\n") << "10,000 bytes, and these alone";
}

TEST(Http, NoConnection) {
    CHTTPClient client;
    for (const char* host : {"localhost", "", "300.1.1.1"})
        EXPECT_EQ(client.ConnectTo(host, 80), -1) << host;
    EXPECT_EQ(client.ConnectTo(nullptr, 80), -1);
    for (const int port : {0, -1, 65536}) EXPECT_EQ(client.ConnectTo("127.0.0.1", port), -1);
    char buffer[16];
    EXPECT_EQ(client.SendText("x"), 0);
    EXPECT_EQ(client.ReadResponseLine(buffer, sizeof buffer), -1);
    EXPECT_EQ(client.ReadBody(buffer, 1), -1);
    HttpServer server({"again\n"});
    EXPECT_EQ(client.ConnectTo("127.0.0.1", server.Port()), 0);
    client.SendText("\r\n\r\n");
    EXPECT_EQ(ReadLineOf(client), "again\n");
}

}  // namespace
