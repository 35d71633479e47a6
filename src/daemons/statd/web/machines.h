// What machines ask: GET /metrics for Prometheus, /healthz and /readyz for whoever starts programs
// or sends mail to them.
#pragma once

#include <optional>

#include "daemons/quarantine/numbers.h"
#include "daemons/statd/store/recorder.h"
#include "daemons/statd/web/server.h"

namespace stats {

// Who gets them without an account, by the key MetricsAccess.
enum class MachineAccess {
    kFree,     // this one
    kAccount,  // with one
    kNobody    // no account helps: this client may not ask
};
MachineAccess MayAsk(const HttpRequest& request);

// The numbers of all programs of the instance, and of its quarantine, if that
// can be read.
HttpResponse MetricsPage(const LiveNumbers& live, const std::optional<quarantine::Numbers>& held);
// Why mail can't be taken or scanned now, one a line; empty: it can.
std::string MailComplaints();
// 200: this daemon answers.
HttpResponse HealthPage();
// 200 if mail can be taken and scanned; 503 with the reasons, one a line.
HttpResponse ReadyPage();

}  // namespace stats
