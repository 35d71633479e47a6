#include "daemons/statd/web/site.h"

#include <algorithm>
#include <cctype>

#include "daemons/statd/report/form.h"
#include "daemons/statd/report/format.h"
#include "daemons/statd/store/text.h"
#include "daemons/statd/web/machines.h"
#include "daemons/statd/web/page.h"
#include "daemons/statd/web/search.h"
#include "platform/clock.h"
#include "text/ascii.h"
#include "text/day.h"

namespace stats {
namespace {

constexpr char kPlain[] = "text/plain; charset=utf-8";
constexpr char kHtml[] = "text/html; charset=utf-8";

struct Path {
    const char* path;
    const char* methods;  // as the Allow header has them
    bool forMachines = false;
};
constexpr Path kPaths[] = {{"/", "GET, POST"},           {"/live", "GET"},
                           {"/quarantine", "GET, POST"}, {"/find", "GET"},
                           {"/metrics", "GET", true},    {"/healthz", "GET", true},
                           {"/readyz", "GET", true}};

// Messages of the quarantine have paths below its own.
std::string NameOf(const std::string& path) {
    return HeldPages::IsTheirs(path) ? "/quarantine" : path;
}

HttpResponse Plain(unsigned status, const std::string& text, HttpHeaders headers = {}) {
    return {status, kPlain, text + '\n', std::move(headers)};
}

HttpResponse Unreadable() { return Plain(500, "The statistics can't be read."); }

bool IsForm(const std::string& contentType) {
    std::string type = LowerCase(contentType.substr(0, contentType.find(';')));
    while (!type.empty() && type.back() == ' ') type.pop_back();
    return type == "application/x-www-form-urlencoded";
}

// A page may use what it brings itself, and ask this server alone.
HttpResponse Document(std::string html, const std::string& nonce) {
    return {200,
            kHtml,
            std::move(html),
            {{"Content-Security-Policy",
              "default-src 'none'; style-src 'nonce-" + nonce + "'; script-src 'nonce-" + nonce +
                  "'; connect-src 'self'; form-action 'self'; base-uri 'none'; "
                  "frame-ancestors 'none'"},
             {"Referrer-Policy", "no-referrer"}}};
}

HttpResponse Written(const ReportRequest& asked, const Report& report) {
    switch (asked.format) {
        case ReportFormat::kHtml: {
            const std::string nonce = RandomHex(16);
            return Document(FormatHtml(report, nonce), nonce);
        }
        case ReportFormat::kCsv:
            return {200,
                    "text/csv; charset=utf-8",
                    FormatCsv(report),
                    {{"Content-Disposition", "attachment; filename=\"statistics.csv\""}}};
        case ReportFormat::kTables:
            return {200, kPlain, FormatTables(report), {}};
        case ReportFormat::kText:
            break;
    }
    return {200, kPlain, FormatText(report), {}};
}

}  // namespace

std::optional<HttpResponse> HttpSite::Judge(const HttpRequest& request) {
    const Path* const path = std::find_if(
        std::begin(kPaths), std::end(kPaths),
        [&, name = NameOf(request.path)](const Path& each) { return name == each.path; });
    if (path == std::end(kPaths)) return Plain(404, "There is nothing here.");
    const bool known = request.method == "GET" || request.method == "POST";
    if (!known || std::string_view(path->methods).find(request.method) == std::string_view::npos)
        return Plain(405, "Not in this way.", {{"Allow", path->methods}});
    const MachineAccess access = path->forMachines ? MayAsk(request) : MachineAccess::kAccount;
    if (access == MachineAccess::kFree) return std::nullopt;
    if (access == MachineAccess::kNobody)
        return Plain(403, "Only from this host (key MetricsAccess).");
    const Accounts::Verdict verdict = accounts_.Check(request.authorization, request.clientAddress);
    if (verdict == Accounts::Verdict::kGood) return std::nullopt;
    if (verdict == Accounts::Verdict::kBusy)
        return Plain(503, "Too many at a time; try again.", {{"Retry-After", "2"}});
    return Plain(401, "An account is needed (vtstatd passwd NAME makes one).",
                 {{"WWW-Authenticate", "Basic realm=\"Vantrel Statistics\", charset=\"UTF-8\""}});
}

HttpResponse HttpSite::Answer(const HttpRequest& request) {
    if (HeldPages::IsTheirs(request.path)) return Held(request);
    if (request.method == "POST") return MakeReport(request);
    if (request.path == "/metrics") return MetricsPage(recorder_.Live(), held_.Count());
    if (request.path == "/healthz") return HealthPage();
    if (request.path == "/readyz") return ReadyPage();
    if (request.path == "/find") return Find(request.search);
    return request.path == "/live" ? Live() : Page();
}

HttpResponse HttpSite::Page() {
    const std::string nonce = RandomHex(16);
    auto page = OverviewPage(reader_, recorder_.Live(), platform::UtcSeconds(), nonce);
    return page ? Document(std::move(*page), nonce) : Unreadable();
}

HttpResponse HttpSite::Find(const std::string& asked) {
    const std::string nonce = RandomHex(16);
    auto page = SearchPage(asked, nonce);
    if (!page) return Plain(503, "Another search runs; try again.", {{"Retry-After", "2"}});
    return Document(std::move(*page), nonce);
}

HttpResponse HttpSite::Held(const HttpRequest& request) {
    if (request.method == "POST" && !IsForm(request.contentType))
        return Plain(400, "The type must be application/x-www-form-urlencoded.");
    const std::string nonce = RandomHex(16);
    HttpResponse response = held_.Answer(request, nonce);
    return response.type == kHtml ? Document(std::move(response.body), nonce) : response;
}

HttpResponse HttpSite::Live() { return {200, "application/json", LiveJson(recorder_.Live()), {}}; }

HttpResponse HttpSite::MakeReport(const HttpRequest& request) {
    if (!IsForm(request.contentType))
        return Plain(400, "The type must be application/x-www-form-urlencoded.");
    std::string why;
    const auto asked = ParseReportForm(request.body, DayOf(platform::UtcSeconds()), why);
    if (!asked) return Plain(400, why);
    Report report;
    if (!reader_.Read(asked->firstDay, asked->lastDay, kReportNames, report)) return Unreadable();
    return Written(*asked, report);
}

}  // namespace stats
