// The reports of the statistics daemon for a person: tables in the terminal, or a file in the
// current directory. It asks over HTTP, as any reader of reports does, so the server may be another
// host.
#include <getopt.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "libstats/httpclient.h"
#include "libstats/libstats.h"
#include "net/socket.h"
#include "platform/clock.h"
#include "platform/commandline.h"
#include "platform/console.h"
#include "platform/file.h"
#include "platform/home.h"
#include "text/day.h"
#include "text/printable.h"
#include "text/usage.h"
#include "tools/report_tables.h"

namespace {

constexpr int kExitFine = 0;
constexpr int kExitFailed = 1;

// What the reader is known by; the server's answer doesn't depend on them.
constexpr int kRequestId = 1;
constexpr int kAgentId = 4;
// The days of the query count, not a period that the server works out.
constexpr int kNoPeriod = 0;
constexpr int kDefaultDays = 30;

constexpr char kLocalAddress[] = "127.0.0.1";
constexpr char kUserVariable[] = "VANTREL_REPORT_USER";
constexpr char kPasswordVariable[] = "VANTREL_REPORT_PASSWORD";
// Made by the statistics daemon for its own user: "user:password".
constexpr char kTokenFile[] = "report.token";

const Usage kUsage{
    "vtreport",
    "usage: vtreport [--host HOST] [--format html|txt|csv] [--from DAY] [--to DAY]\n"
    "       vtreport --help | --version\n"
    "Prints the statistics as tables, or with --format makes a report file in the current\n"
    "directory and prints its path. HOST is 127.0.0.1 if not given. Days are YYYY-MM-DD, UTC,\n"
    "both included; without them the last 30 days.\n"
    "User and password: VANTREL_REPORT_USER and VANTREL_REPORT_PASSWORD, else for 127.0.0.1\n"
    "the file report.token of the instance, which goes to the instance's own daemon by a\n"
    "socket in its directory and to nobody else; else asked for in a terminal.\n"};

int Fail(const std::string& what) {
    std::fprintf(stderr, "vtreport: %s\n", what.c_str());
    return kExitFailed;
}

// Arguments

struct Options {
    std::string host = kLocalAddress;
    int format = 0;                    // 0: tables; else as ReportQuery takes it
    std::optional<std::int64_t> from;  // as the next, as text/day.h counts
    std::optional<std::int64_t> to;
};

int ParseFormat(const char* word) {
    constexpr const char* kFormats[] = {"html", "txt", "csv"};
    for (int i = 0; i < 3; ++i) {
        if (std::strcmp(word, kFormats[i]) == 0) return i + 1;
    }
    return 0;
}

constexpr int kHelp = 1;
constexpr int kVersion = 2;

// Nothing if the program goes on, else its exit code.
std::optional<int> ParseArguments(int argc, char** argv, Options& options) {
    constexpr option kOptions[] = {{"host", required_argument, nullptr, 'h'},
                                   {"format", required_argument, nullptr, 'F'},
                                   {"from", required_argument, nullptr, 'f'},
                                   {"to", required_argument, nullptr, 't'},
                                   {"help", no_argument, nullptr, kHelp},
                                   {"version", no_argument, nullptr, kVersion},
                                   {nullptr, 0, nullptr, 0}};
    opterr = 0;
    for (;;) {
        const char* word = optind < argc ? argv[optind] : "";
        const int found = getopt_long(argc, argv, "", kOptions, nullptr);
        if (found == -1) break;
        switch (found) {
            case 'h':
                options.host = optarg;
                break;
            case 'F':
                options.format = ParseFormat(optarg);
                if (options.format == 0)
                    return WrongUsage(kUsage, std::string("no such format: ") + optarg);
                break;
            case 'f':
            case 't': {
                const std::optional<std::int64_t> day = ParseDay(optarg);
                if (!day) return WrongUsage(kUsage, std::string("no day as YYYY-MM-DD: ") + optarg);
                (found == 'f' ? options.from : options.to) = day;
                break;
            }
            case kHelp:
                return PrintUsage(kUsage);
            case kVersion:
                return PrintVersion(kUsage);
            default:
                return WrongUsage(kUsage,
                                  std::string("unknown option, or its value is missing: ") + word);
        }
    }
    if (optind < argc) return WrongUsage(kUsage, std::string("unexpected: ") + argv[optind]);
    if (!options.to) options.to = DayOf(platform::UtcSeconds());
    if (!options.from) options.from = *options.to - (kDefaultDays - 1);
    if (*options.from > *options.to) return WrongUsage(kUsage, "--from lies behind --to");
    return std::nullopt;
}

// Credentials

struct Credentials {
    std::string user;
    std::string password;
    bool owners = false;  // this instance's token, for its own daemon alone
};

std::optional<Credentials> FromTokenFile() {
    if (!platform::WhyNoHome().empty()) return std::nullopt;  // which is not made for this
    std::ifstream file(platform::HomePath(kTokenFile));
    std::string line;
    if (!std::getline(file, line)) return std::nullopt;
    const std::size_t colon = line.find(':');
    if (colon == std::string::npos) return std::nullopt;
    return Credentials{line.substr(0, colon), line.substr(colon + 1), true};
}

std::optional<Credentials> FromTerminal() {
    const auto user = platform::AskAtTerminal("User: ", platform::Echo::kOn);
    if (!user) return std::nullopt;
    const auto password = platform::AskAtTerminal("Password: ", platform::Echo::kOff);
    if (!password) return std::nullopt;
    return Credentials{*user, *password, false};
}

// Without any the server is asked all the same: whether it wants some is its affair.
Credentials FindCredentials(const std::string& address) {
    const char* user = std::getenv(kUserVariable);
    const char* password = std::getenv(kPasswordVariable);
    if (user != nullptr && password != nullptr) return Credentials{user, password, false};
    std::optional<Credentials> found;
    if (address == kLocalAddress) found = FromTokenFile();
    if (!found) found = FromTerminal();
    return found.value_or(Credentials{});
}

// Output

// Why there is no report, and what to do.
std::string Failure(const CHTTPClient& client, const Options& options, bool knownUser) {
    constexpr int kBadRequest = 400;
    constexpr int kUnauthorized = 401;
    constexpr int kForbidden = 403;
    constexpr int kBusy = 503;
    constexpr int kOk = 200;
    const std::string what = "no report from " + options.host + ": ";
    switch (const int status = client.LastStatus()) {
        case CHTTPClient::kNotReached:
            return what +
                   "the statistics daemon (vtstatd) doesn't run there, or its HTTPPort can't "
                   "be reached";
        case CHTTPClient::kNoAnswer:
            return what + "the statistics daemon was reached, but gives no answer";
        case kUnauthorized:
        case kForbidden:
            if (knownUser) return what + "it refuses user and password";
            return what + "it refuses to answer without user and password: set " + kUserVariable +
                   " and " + kPasswordVariable + ", or run it in a terminal";
        case kBadRequest:
            return what + "it can't do anything with the days from " + FormatDay(*options.from) +
                   " to " + FormatDay(*options.to);
        case kBusy:
            return what + "it is busy, try again";
        case kOk:
            return what + "it has ended before it was whole, or can't be written here";
        default:
            return what + "it answers with the HTTP status " + std::to_string(status);
    }
}

int ShowTables(libstats::CLibStats& stats, CHTTPClient* client, const ReportQuery& query,
               const std::function<std::string()>& failure) {
    // The tables come by way of a file, which needs a place that a person can write to, and which
    // stays there where the exchange fails.
    std::error_code error;
    std::string place = (std::filesystem::temp_directory_path(error) / "vtreport.XXXXXX").string();
    if (error || mkdtemp(place.data()) == nullptr)
        return Fail("can't make a temporary directory, " + place);
    platform::SetCommandLineArguments({"vtreport", place + "/"});
    const std::unique_ptr<ReportTables> tables = stats.GetReportTables(client, &query);
    std::filesystem::remove_all(place, error);
    if (tables == nullptr) return Fail(failure());
    std::printf("Mail from %s to %s (UTC)\n", query.DateStart, query.DateEnd);
    const std::size_t width = TerminalWidth();
    for (const ReportTable& table : *tables)
        std::printf("\n%s", TableForTerminal(table, width).c_str());
    if (tables->empty()) std::puts("\nnothing in this period");
    return std::fflush(stdout) == 0 ? kExitFine : Fail("can't write the tables");
}

int MakeFile(libstats::CLibStats& stats, CHTTPClient* client, const ReportQuery& query,
             const std::function<std::string()>& failure) {
    // Report files go where the second argument points, if it has a separator: here, and not
    // beside the program, where a person can't write.
    std::error_code error;
    const std::filesystem::path here = std::filesystem::current_path(error);
    if (error) return Fail("the current directory can't be found: " + error.message());
    platform::SetCommandLineArguments({"vtreport", (here / "").string()});
    if (!platform::MayMakeFiles(here.c_str()))
        return Fail("can't write to the current directory, " + here.string());
    const ReportPath path = stats.GetFormattedReportFile(client, &query);
    if (path == nullptr) return Fail(failure());
    std::puts(path.get());
    return std::fflush(stdout) == 0 ? kExitFine : Fail("can't write the path");
}

int Report(const Options& options, const std::string& address, const Credentials& credentials) {
    libstats::CLibStats& stats = *GetLibStats();
    if (stats.AddServer(address.c_str(), credentials.user.c_str(), credentials.password.c_str()) !=
        0)
        return Fail("user and password are too long");
    CHTTPClient* client = stats.CreateHTTPClient();
    if (client == nullptr) return Fail("no memory");
    // Anybody on this host may listen on the port while the daemon is down.
    if (credentials.owners) client->UseOwnDaemon();
    ReportQuery query{};
    std::snprintf(query.Host, sizeof query.Host, "%s", address.c_str());
    query.RequestId = kRequestId;
    query.Format = options.format;
    query.AgentId = kAgentId;
    query.TimePeriod = kNoPeriod;
    std::snprintf(query.DateStart, sizeof query.DateStart, "%s", FormatDay(*options.from).c_str());
    std::snprintf(query.DateEnd, sizeof query.DateEnd, "%s", FormatDay(*options.to).c_str());
    const auto failure = [&] { return Failure(*client, options, !credentials.user.empty()); };
    const int code = options.format == 0 ? ShowTables(stats, client, query, failure)
                                         : MakeFile(stats, client, query, failure);
    stats.ReleaseHTTPClient(&client);
    return code;
}

}  // namespace

int main(int argc, char** argv) {
    if (const std::optional<int> code = AnswerHelp(kUsage, argc, argv)) return *code;
    Options options;
    if (const std::optional<int> code = ParseArguments(argc, argv, options)) return *code;
    const SocketAddress resolved = ResolveHost(options.host.c_str(), 0);
    if (!resolved.Known()) return Fail("unknown host: " + options.host);
    const std::string address = AddressText(resolved);
    const Credentials credentials = FindCredentials(address);
    if (InitLibStats() != 0) return Fail("can't start the statistics client");
    const int code = Report(options, address, credentials);
    ReleaseLibStats();
    return code;
}
