#include "daemons/statd/web/machines.h"

#include "metrics/exposition.h"
#include "metrics/snapshot.h"
#include "trelis/admin.h"
#include "trelis/keys/settings.h"

namespace stats {
namespace {

using metrics::Kind;
using metrics::Metric;
using metrics::Program;

constexpr trelis::Key kAccess{trelis::kStatsKey, "MetricsAccess"};
// In the order of the key's words.
enum class AccessWord { kLoopback, kAccount, kAll };
// There in every store that has a configuration.
constexpr char kTopKey[] = "/VTWIN";

void WriteOwn(metrics::Exposition& exposition, const LiveNumbers& live) {
    const auto one = [&exposition](const char* name, Kind kind, const char* help,
                                   std::int64_t value) {
        exposition.Family(name, kind, help);
        exposition.Sample({}, static_cast<double>(value));
    };
    one("vantrel_statistics_records_total", Kind::kCounter,
        "Records that the statistics daemon has received.", live.received);
    one("vantrel_statistics_records_lost_total", Kind::kCounter, "Records that it could not keep.",
        live.lost);
    one("vantrel_statistics_records_waiting", Kind::kGauge, "Records that it has yet to write.",
        live.waiting);
    if (const std::int64_t changes = trelis::CountChanges(); changes >= 0)
        one("vantrel_store_changes_total", Kind::kCounter,
            "Changes of the configuration since its store was made.", changes);
}

// The index has them, for whichever program lets a message out.
void WriteHeld(metrics::Exposition& exposition, const quarantine::Numbers& held) {
    exposition.Family("vantrel_quarantine_messages", Kind::kGauge,
                      "Messages in the quarantine, by state.");
    for (std::size_t i = 0; i < held.messages.size(); ++i)
        exposition.Sample({{"state", quarantine::kStates[i]}},
                          static_cast<double>(held.messages[i]));
    const struct {
        const char* name;
        Kind kind;
        const char* help;
        long long value;
    } rows[] = {
        {"vantrel_quarantine_bytes", Kind::kGauge, "Bytes of these messages.", held.bytes},
        {"vantrel_quarantine_released_total", Kind::kCounter,
         "Messages that were sent on from the quarantine.", held.released},
        {"vantrel_quarantine_expired_total", Kind::kCounter,
         "Messages that were deleted from it for their age.", held.expired},
        {"vantrel_quarantine_pushed_out_total", Kind::kCounter,
         "Messages that were deleted from it to make room for others.", held.pushedOut},
    };
    for (const auto& row : rows) {
        exposition.Family(row.name, row.kind, row.help);
        exposition.Sample({}, static_cast<double>(row.value));
    }
}

std::string ProxyComplaints() {
    const auto proxy = metrics::Read(Program::kProxy);
    if (!proxy || !proxy->running) return "the proxy does not run\n";
    if (proxy->Gauge(Metric::kDraining) > 0) return "the proxy is draining\n";
    return proxy->Gauge(Metric::kListeners) > 0 ? "" : "the proxy does not listen\n";
}

std::string EngineComplaints() {
    const auto daemon = metrics::Read(Program::kMailDaemon);
    if (!daemon || !daemon->running) return "the mail daemon does not run\n";
    for (std::size_t i = 0; i < daemon->Places(Metric::kEngineUp); ++i) {
        if (daemon->Gauge(Metric::kEngineUp, i) > 0) return "";
    }
    return "no engine is up\n";
}

}  // namespace

MachineAccess MayAsk(const HttpRequest& request) {
    switch (static_cast<AccessWord>(trelis::ReadChoice(kAccess))) {
        case AccessWord::kLoopback:
            return request.local ? MachineAccess::kFree : MachineAccess::kNobody;
        case AccessWord::kAll:
            return MachineAccess::kFree;
        case AccessWord::kAccount:
            break;
    }
    return MachineAccess::kAccount;
}

HttpResponse MetricsPage(const LiveNumbers& live, const std::optional<quarantine::Numbers>& held) {
    std::vector<metrics::Snapshot> programs;
    for (std::size_t i = 0; i < metrics::kProgramNames.size(); ++i) {
        if (auto snapshot = metrics::Read(static_cast<Program>(i)))
            programs.push_back(std::move(*snapshot));
    }
    metrics::Exposition exposition;
    metrics::Write(exposition, programs);
    WriteOwn(exposition, live);
    if (held) WriteHeld(exposition, *held);
    return {200, metrics::kExpositionType, exposition.Take(), {}};
}

HttpResponse HealthPage() { return {200, "text/plain; charset=utf-8", "ok\n", {}}; }

std::string MailComplaints() {
    std::string complaints = ProxyComplaints() + EngineComplaints();
    if (!trelis::ListChildren(kTopKey)) complaints += "the store can't be read\n";
    return complaints;
}

HttpResponse ReadyPage() {
    const std::string complaints = MailComplaints();
    const unsigned status = complaints.empty() ? 200 : 503;
    return {status, "text/plain; charset=utf-8", complaints.empty() ? "ok\n" : complaints, {}};
}

}  // namespace stats
