#include "session/secure.h"

#include <algorithm>
#include <atomic>
#include <chrono>

#include "logclient/logclient.h"
#include "metrics/count.h"

namespace {

constexpr std::uint32_t kLongestHandshake = 30;  // seconds
constexpr std::int64_t kMostTold = 10;           // failures a minute

// Strangers cause them at will: they must not fill the log.
bool IsWorthAWord() {
    static std::atomic<std::int64_t> minute{0};
    static std::atomic<std::int64_t> told{0};
    const auto now = std::chrono::duration_cast<std::chrono::minutes>(
                         std::chrono::steady_clock::now().time_since_epoch())
                         .count();
    if (minute.exchange(now) != now) told = 0;
    return ++told <= kMostTold;
}

}  // namespace

Deadline HandshakeLimit(const SessionSettings& settings) {
    return Deadline(std::min(kLongestHandshake, settings.connectionTimeout));
}

std::shared_ptr<const TlsContext> ClientContext(const ConnectionOptions& options) {
    if (options.identity == nullptr) return nullptr;
    std::string complaint;
    std::shared_ptr<const TlsContext> context = options.identity->Context(complaint);
    if (!complaint.empty())
        LogClientPost(kEventWarning, nullptr, nullptr, nullptr, nullptr, nullptr,
                      complaint.c_str());
    return context;
}

bool SecureClient(Peers& peers, const TlsContext& context) {
    TlsOutcome outcome = TlsAccept(peers.client.Socket(), context, HandshakeLimit(peers.settings));
    if (outcome.transport == nullptr) {
        // Who only looks whether somebody listens is nothing to speak of.
        if (!outcome.heard || !IsWorthAWord()) return false;
        const std::string text = "TLS with " + peers.address + " failed: " + outcome.failure;
        LogClientPost(kEventInfo, nullptr, text.c_str());
        return false;
    }
    metrics::Add<metrics::Metric::kTlsSessions>(
        outcome.protocol == "TLSv1.3"   ? metrics::TlsVersion::k13
        : outcome.protocol == "TLSv1.2" ? metrics::TlsVersion::k12
                                        : metrics::TlsVersion::kOther);
    peers.client.Secure(std::move(outcome.transport));
    peers.journal.session.tls = outcome.protocol + " " + outcome.cipher;
    return true;
}
