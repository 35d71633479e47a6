#include "metrics/exposition.h"

#include <gtest/gtest.h>

namespace metrics {
namespace {

Snapshot Proxy() {
    Snapshot snapshot;
    snapshot.program = Program::kProxy;
    snapshot.running = true;
    snapshot.started = 1700000000;
    snapshot.version = "1.2.3";
    snapshot.interfaces = {"net"};
    snapshot.words.assign(kOffsets[kRowCount], 0);
    return snapshot;
}

std::uint64_t& At(Snapshot& snapshot, Metric metric, std::size_t word = 0) {
    return snapshot.words[kOffsets[static_cast<std::size_t>(metric)] + word];
}

std::string Written(const std::vector<Snapshot>& programs) {
    Exposition exposition;
    Write(exposition, programs);
    return exposition.Take();
}

bool Has(const std::string& text, const std::string& line) {
    return ("\n" + text).find("\n" + line + "\n") != std::string::npos;
}

TEST(Exposition, BucketsAreSumsAndTimesAreSeconds) {
    Snapshot proxy = Proxy();
    At(proxy, Metric::kScanTime, 0) = 2;
    At(proxy, Metric::kScanTime, 1) = 3;
    At(proxy, Metric::kScanTime, std::size(kTimes)) = 1;
    At(proxy, Metric::kScanTime, std::size(kTimes) + 1) = 150250000;
    const std::string text = Written({proxy});
    for (const char* line :
         {"# TYPE vantrel_scan_seconds histogram", "vantrel_scan_seconds_bucket{le=\"0.001\"} 2",
          "vantrel_scan_seconds_bucket{le=\"0.005\"} 5",
          "vantrel_scan_seconds_bucket{le=\"120\"} 5", "vantrel_scan_seconds_bucket{le=\"+Inf\"} 6",
          "vantrel_scan_seconds_sum 150.25", "vantrel_scan_seconds_count 6"})
        EXPECT_TRUE(Has(text, line)) << line;
}

TEST(Exposition, LabelsCannotEndTheirLine) {
    const struct {
        const char* name;
        const char* shown;
    } cases[] = {
        {"net", "net"},
        {"a\"b", "a\\\"b"},
        {"a\\", "a\\\\"},
        {"a\"} 5\nvantrel_x 1", "a\\\"} 5?vantrel_x 1"},
        {"\xC3\xA9", "\xC3\xA9"},
        {"\xC3", "?"},
        {"", ""},
    };
    for (const auto& each : cases) {
        Snapshot proxy = Proxy();
        proxy.interfaces = {each.name};
        At(proxy, Metric::kSessions) = 4;
        EXPECT_TRUE(Has(Written({proxy}),
                        "vantrel_sessions_total{interface=\"" + std::string(each.shown) + "\"} 4"))
            << each.name;
    }
}

TEST(Exposition, ADeadProgramHasTotalsAndNoStart) {
    Snapshot proxy = Proxy();
    proxy.running = false;
    At(proxy, Metric::kSessions) = 9;
    At(proxy, Metric::kSessionsActive) = 5;
    At(proxy, Metric::kListeners) = 1;
    const std::string text = Written({proxy});
    EXPECT_TRUE(Has(text, "vantrel_program_up{program=\"vtsmtpproxy\"} 0"));
    EXPECT_TRUE(Has(text, "vantrel_sessions_total{interface=\"net\"} 9"));
    EXPECT_TRUE(Has(text, "vantrel_sessions_active{interface=\"net\"} 0"));
    EXPECT_TRUE(Has(text, "vantrel_listeners 0"));
    EXPECT_EQ(text.find("vantrel_build_info{"), std::string::npos);
    EXPECT_EQ(text.find("1700000000"), std::string::npos);
}

// A family stands together, however many programs have it, and large numbers stay whole.
TEST(Exposition, AFamilyStandsOnce) {
    Snapshot proxy = Proxy();
    Snapshot daemon = Proxy();
    daemon.program = Program::kMailDaemon;
    At(proxy, Metric::kQueueDropped, 1) = 1234567890123;
    const std::string text = Written({proxy, daemon});
    const std::string lines =
        "# TYPE vantrel_queue_dropped_total counter\n"
        "vantrel_queue_dropped_total{program=\"vtsmtpproxy\",queue=\"log\"} 0\n"
        "vantrel_queue_dropped_total{program=\"vtsmtpproxy\",queue=\"statistics\"} 1234567890123\n"
        "vantrel_queue_dropped_total{program=\"vtmaild\",queue=\"log\"} 0\n"
        "vantrel_queue_dropped_total{program=\"vtmaild\",queue=\"statistics\"} 0\n";
    EXPECT_NE(text.find(lines), std::string::npos) << text;
    EXPECT_EQ(text.find("vantrel_queue_dropped_total counter"),
              text.rfind("vantrel_queue_dropped_total counter"));
    EXPECT_TRUE(Has(text, "vantrel_build_info{program=\"vtmaild\",version=\"1.2.3\"} 1"));
}

}  // namespace
}  // namespace metrics
