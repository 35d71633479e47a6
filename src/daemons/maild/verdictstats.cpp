#include "daemons/maild/verdictstats.h"

#include <algorithm>
#include <limits>

#include "libstats/codes.h"
#include "libstats/libstats.h"
#include "logclient/logclient.h"

namespace {

void TellLost(std::uint64_t lost) {
    const std::string text = std::to_string(lost) + " statistics records lost";
    LogClientPost(kEventWarning, nullptr, nullptr, nullptr, nullptr, nullptr, text.c_str());
}

}  // namespace

bool VerdictStats::Start() {
    OnStatsLost(TellLost);
    started_ = InitLibStats() == 0;
    return started_;
}

void VerdictStats::Stop() {
    if (started_) ReleaseLibStats();
    started_ = false;
}

void VerdictStats::Add(const VerdictRecord& verdict) {
    libstats::CLibStats* client = GetLibStats();
    libstats::CStatsRequest* record = client == nullptr ? nullptr : CreateStatsRequest();
    if (record == nullptr) return;
    record->SetSourceHost(verdict.peer.c_str());
    record->SetAgentId(kStatAgentScanner);
    record->SetEventCode(verdict.event);
    record->SetSender(verdict.sender.c_str());
    record->AddRecipient(verdict.recipients.c_str());
    if (!verdict.signature.empty()) record->SetLabel(verdict.signature.c_str());
    record->SetValue(
        static_cast<int>(std::min<long long>(verdict.size, std::numeric_limits<int>::max())));
    client->PostRequest(record);
    FreeStatsRequest(record);
}
