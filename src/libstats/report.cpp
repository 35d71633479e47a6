// Reports: one exchange with a statistics server, its body as a file or as tables.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <optional>
#include <string>
#include <vector>

#include "libstats/core.h"
#include "libstats/reportfile.h"
#include "libstats/servers.h"
#include "libstats/tables.h"
#include "platform/file.h"

namespace {

enum ReportType { kPlainFile = 1, kFormattedFile = 2, kTables = 3 };

constexpr int kStatusOk = 200;
constexpr int kStatusLineSize = 1024;
constexpr int kItemSize = 1024;
constexpr int kPieceSize = 8192;
// Tables are held whole; what claims to be larger is no report for a person.
constexpr std::size_t kMostTableText = std::size_t{64} * 1024 * 1024;

constexpr char kRequestHead[] =
    "POST / HTTP/1.1\r\nContent-Type: application/x-www-form-urlencoded\r\nContent-Length: %d\r\n"
    "Authorization: basic %s\r\n\r\n";

const char* Extension(int format) {
    constexpr const char* kExtensions[] = {"", "html", "txt", "csv"};
    return format >= 1 && format <= 3 ? kExtensions[format] : "";
}

template <std::size_t Size>
std::string Bounded(const char (&text)[Size]) {
    return std::string(text, strnlen(text, Size));
}

std::string RequestBody(const ReportQuery& query, int type, int format) {
    const auto number = [](const char* name, int value) {
        return std::string(name) + '=' + std::to_string(value);
    };
    const std::string items[] = {
        number("request_type", type),
        number("request_id", query.RequestId),
        number("request_format", format),
        number("agent_id", query.AgentId),
        number("time_period", query.TimePeriod),
        "date_start=" + Bounded(query.DateStart),
        "date_end=" + Bounded(query.DateEnd),
    };
    std::string body;
    for (const std::string& item : items) {
        if (!body.empty()) body += '&';
        body.append(item, 0, kItemSize - 1);
    }
    return body;
}

// The response's status, or 0 if there is none that can be read.
int ReadStatus(CHTTPClient& client) {
    char line[kStatusLineSize];
    if (client.ReadResponseLine(line, sizeof line) != 1) return 0;
    const char* at = line + std::strspn(line, " \t");
    at += std::strcspn(at, " \t\r\n");
    const long status = std::strtol(at, nullptr, 10);
    return status > 0 && status < 1000 ? static_cast<int>(status) : 0;
}

// The length of the body, cut to what an int holds; nothing without the header: then nothing tells
// how much belongs to the report, and a cut one must not pass for a whole one.
std::optional<int> ReadLength(CHTTPClient& client) {
    const char* text = client.GetHeader("Content-Length");
    if (text == nullptr) return std::nullopt;
    const long long value = std::strtoll(text, nullptr, 10);
    constexpr long long kMost = std::numeric_limits<int>::max();
    return static_cast<int>(std::clamp(value, -kMost, kMost));
}

bool ReceiveBody(CHTTPClient& client, int length, const char* path) {
    platform::File file = platform::File::OpenAppend(path);
    if (!file) return false;
    int left = std::max(length, 0);
    std::vector<char> piece(static_cast<std::size_t>(std::min(left, kPieceSize)) + 1);
    while (left > 0) {
        const int count = std::min(left, kPieceSize);
        if (client.ReadBody(piece.data(), count) != 0) return false;
        if (!file.Write(piece.data(), static_cast<std::size_t>(count))) return false;
        left -= count;
    }
    return file.Close();
}

ReportPath ReceiveReport(CHTTPClient& client, const char* extension) {
    client.NoteStatus(ReadStatus(client));
    if (client.LastStatus() != kStatusOk) return nullptr;
    client.ReadHeaders();
    const std::optional<int> length = ReadLength(client);
    if (!length) return nullptr;
    char directory[kReportPathSize];
    if (ProgramDirectory(directory, sizeof directory) != 0) directory[0] = '\0';
    ReportPath path = CreateReportFile(directory, extension);
    if (path == nullptr) return nullptr;
    // What came of a report that was cut short stays, for whoever wants to see how far it got.
    return ReceiveBody(client, *length, path.get()) ? std::move(path) : nullptr;
}

// The whole text, or an empty one. What stands behind a zero byte in a piece is dropped.
std::string ReadText(const char* path) {
    platform::File file = platform::File::OpenRead(path);
    if (!file) return {};
    std::string text;
    std::vector<char> piece(kPieceSize);
    for (;;) {
        const long long count = file.Read(piece.data(), piece.size());
        if (count == 0) return text;
        if (count < 0 || text.size() > kMostTableText) return {};
        text.append(piece.data(), strnlen(piece.data(), static_cast<std::size_t>(count)));
    }
}

}  // namespace

ReportPath CLibStatsCore::QueryReport(CHTTPClient* client, const ReportQuery* query, int type,
                                      int format) {
    if (client == nullptr || query == nullptr) return nullptr;
    ReportPath path;
    try {
        const std::string host = Bounded(query->Host);
        const auto server = servers_.find(ResolveAddress(host.c_str()));
        if (server == servers_.end()) return nullptr;
        const std::string token = server->second;
        const std::string body = RequestBody(*query, type, format);
        if (client->ConnectTo(host.c_str(), port_) == 0 &&
            client->SendFormat(kRequestHead, static_cast<int>(body.size()), token.c_str()) == 1 &&
            client->SendText(body.c_str()) == 1)
            path = ReceiveReport(*client, Extension(format));
    } catch (const std::exception&) {  // no memory: as any failure
    }
    client->CloseConnection();
    return path;
}

ReportPath CLibStatsCore::GetReportFile(CHTTPClient* client, const ReportQuery* query) {
    return QueryReport(client, query, kPlainFile, 0);
}

ReportPath CLibStatsCore::GetFormattedReportFile(CHTTPClient* client, const ReportQuery* query) {
    return query == nullptr ? nullptr : QueryReport(client, query, kFormattedFile, query->Format);
}

std::unique_ptr<ReportTables> CLibStatsCore::GetReportTables(CHTTPClient* client,
                                                             const ReportQuery* query) {
    const ReportPath path = QueryReport(client, query, kTables, 0);
    if (path == nullptr) return nullptr;
    std::string text;
    try {
        text = ReadText(path.get());
    } catch (const std::exception&) {  // no memory: as any failure
        text.clear();
    }
    DeleteFileA(path.get());
    return text.empty() ? nullptr : ParseTables(text.c_str());
}

CHTTPClient* CLibStatsCore::CreateHTTPClient() {
    try {
        auto made = std::make_unique<CHTTPClient>();
        const std::lock_guard lock(lock_);
        return clients_.emplace_back(std::move(made)).get();
    } catch (const std::exception&) {
        return nullptr;
    }
}

void CLibStatsCore::ReleaseHTTPClient(CHTTPClient** client) {
    if (client == nullptr || *client == nullptr) return;
    {
        const std::lock_guard lock(lock_);
        clients_.remove_if([client](const auto& each) { return each.get() == *client; });
    }
    *client = nullptr;
}

void CLibStatsCore::CloseHTTPClient(CHTTPClient* client) {
    if (client != nullptr) client->CloseConnection();
}
