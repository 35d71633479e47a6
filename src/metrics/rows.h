// The table of all metrics, in the order of their numbers. Names and units are as Prometheus wants
// them: base units, counters end in _total.
#pragma once

#include "metrics/table.h"

namespace metrics {

// The numbers of the rows.
enum class Metric : std::size_t {
    kSessionsActive,
    kSessions,
    kSessionsRefused,
    kMessages,
    kMessageBytes,
    kReplies,
    kScanTime,
    kRelayTime,
    kMessageSize,
    kFilterHits,
    kTlsSessions,
    kSpoolBytes,
    kListeners,
    kDraining,
    kEngineUp,
    kQueueLength,
    kQueueDropped,
    kEnd
};

// The values of labels, with their names in the code.
enum class Verdict : std::size_t { kForward, kReject, kDrop, kFailed, kNone };
inline constexpr const char* kVerdicts[] = {"forward", "reject", "drop", "failed", "none"};
enum class ReplyClass : std::size_t { k2xx, k3xx, k4xx, k5xx };
inline constexpr const char* kReplyClasses[] = {"2xx", "3xx", "4xx", "5xx"};
enum class Filter : std::size_t { kIpList, kSenders, kGuard, kRelay };
inline constexpr const char* kFilters[] = {"ip_list", "senders", "guard", "relay"};
enum class TlsVersion : std::size_t { k12, k13, kOther };
inline constexpr const char* kTlsVersions[] = {"TLSv1.2", "TLSv1.3", "other"};
enum class EngineName : std::size_t { kClamd };
inline constexpr const char* kEngines[] = {"clamd"};
enum class Queue : std::size_t { kLog, kStatistics };
inline constexpr const char* kQueues[] = {"log", "statistics"};

inline constexpr std::uint64_t kMicroseconds = 1'000'000;  // of a second
inline constexpr std::uint64_t kTimes[] = {
    1'000,     5'000,     10'000,    25'000,     50'000,     100'000,    250'000,    500'000,
    1'000'000, 2'500'000, 5'000'000, 10'000'000, 30'000'000, 60'000'000, 120'000'000};
inline constexpr std::uint64_t kSizes[] = {1'024,     4'096,     16'384,     65'536,    262'144,
                                           1'048'576, 4'194'304, 16'777'216, 67'108'864};

inline constexpr unsigned kProxyOnly = In(Program::kProxy);
inline constexpr unsigned kEverybody =
    In(Program::kProxy) | In(Program::kMailDaemon) | In(Program::kStatistics);

inline constexpr Row kRows[] = {
    Row{"vantrel_sessions_active", Kind::kGauge, kProxyOnly, "Sessions that run."}.ByInterface(),
    Row{"vantrel_sessions_total", Kind::kCounter, kProxyOnly, "Sessions that have begun."}
        .ByInterface(),
    Row{"vantrel_sessions_refused_total", Kind::kCounter, kProxyOnly,
        "Connections that were refused because of MaxThreads."}
        .ByInterface(),
    Row{"vantrel_messages_total", Kind::kCounter, kProxyOnly,
        "Messages by what the scan came to; none: it came to no scan."}
        .With("verdict", kVerdicts),
    Row{"vantrel_message_bytes_total", Kind::kCounter, kProxyOnly,
        "Bytes of these messages, as they were received."}
        .With("verdict", kVerdicts),
    Row{"vantrel_replies_total", Kind::kCounter, kProxyOnly, "Replies to clients."}.With(
        "class", kReplyClasses),
    Row{"vantrel_scan_seconds", Kind::kHistogram, kProxyOnly,
        "Time that the scan of a message took, with the wait for it."}
        .Over(kTimes, kMicroseconds),
    Row{"vantrel_relay_seconds", Kind::kHistogram, kProxyOnly,
        "Time from a message's verdict to the end of its delivery."}
        .Over(kTimes, kMicroseconds),
    Row{"vantrel_message_size_bytes", Kind::kHistogram, kProxyOnly,
        "Sizes of messages, as they were received."}
        .Over(kSizes),
    Row{"vantrel_filter_hits_total", Kind::kCounter, kProxyOnly,
        "What was refused before a message: addresses, senders, harvesters, foreign recipients."}
        .With("filter", kFilters),
    Row{"vantrel_tls_sessions_total", Kind::kCounter, kProxyOnly,
        "Handshakes with clients that succeeded."}
        .With("version", kTlsVersions),
    Row{"vantrel_spool_bytes", Kind::kGauge, kProxyOnly, "Bytes of the messages in hand."},
    Row{"vantrel_listeners", Kind::kGauge, kProxyOnly, "Interfaces that listen."},
    Row{"vantrel_draining", Kind::kGauge, kProxyOnly, "1 while no new sessions are taken."},
    Row{"vantrel_engine_up", Kind::kGauge, In(Program::kMailDaemon),
        "1 if the engine answers and has found the test pattern."}
        .With("engine", kEngines),
    Row{"vantrel_queue_length", Kind::kGauge, kEverybody,
        "Events and records that wait for their daemon."}
        .With("queue", kQueues),
    Row{"vantrel_queue_dropped_total", Kind::kCounter, kEverybody,
        "Events and records that were lost."}
        .With("queue", kQueues),
};
inline constexpr std::size_t kRowCount = static_cast<std::size_t>(Metric::kEnd);
static_assert(std::size(kRows) == kRowCount);

constexpr const Row& RowOf(Metric metric) { return kRows[static_cast<std::size_t>(metric)]; }

}  // namespace metrics
