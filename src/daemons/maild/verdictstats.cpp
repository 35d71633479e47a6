#include "daemons/maild/verdictstats.h"

#include <algorithm>
#include <chrono>
#include <limits>

#include "daemons/statcodes.h"
#include "libstats/libstats.h"

namespace {

constexpr std::size_t kMostWaiting = 10000;
// Where nobody answers, asking for each message would only cost time.
constexpr std::chrono::seconds kPauseAfterFailure{5};

bool Send(const VerdictRecord& verdict) {
    libstats::CLibStats* client = GetLibStats();
    libstats::CStatsRequest* record = client == nullptr ? nullptr : CreateStatsRequest();
    if (record == nullptr) return false;
    record->SetSourceHost(verdict.peer.c_str());
    record->SetAgentId(kStatAgentScanner);
    record->SetEventCode(verdict.event);
    record->SetSender(verdict.sender.c_str());
    record->AddRecipient(verdict.recipients.c_str());
    if (!verdict.signature.empty()) record->SetLabel(verdict.signature.c_str());
    record->SetValue(
        static_cast<int>(std::min<long long>(verdict.size, std::numeric_limits<int>::max())));
    const bool sent = client->SendRequest(record) == 0;
    FreeStatsRequest(record);
    return sent;
}

}  // namespace

bool VerdictStats::Start() {
    if (InitLibStats() != 0) return false;
    stopping_ = false;
    thread_ = std::thread([this] { Work(); });
    return true;
}

void VerdictStats::Stop() {
    if (!thread_.joinable()) return;
    {
        const std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    filled_.notify_all();
    ReleaseLibStats();  // wakes a request that nobody answers
    thread_.join();
}

void VerdictStats::Add(VerdictRecord&& record) {
    const std::lock_guard lock(mutex_);
    if (stopping_ || queue_.size() >= kMostWaiting) return;
    queue_.push_back(std::move(record));
    if (queue_.size() == 1) filled_.notify_one();
}

void VerdictStats::Work() {
    std::unique_lock lock(mutex_);
    while (!stopping_) {
        filled_.wait(lock, [this] { return stopping_ || !queue_.empty(); });
        if (stopping_) return;
        const VerdictRecord record = std::move(queue_.front());
        queue_.pop_front();
        lock.unlock();
        const bool sent = Send(record);
        lock.lock();
        // The record stays lost; what comes during the pause waits in the queue.
        if (!sent) filled_.wait_for(lock, kPauseAfterFailure, [this] { return stopping_; });
    }
}
