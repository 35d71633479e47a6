// Fills a statistics database for measurements: stat_fill FILE RECORDS DAYS NAMES. The records lie
// spread over the days that end today, each with one of NAMES peers and domains, as skewed as mail
// is.
#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include "daemons/statd/store/keep.h"
#include "daemons/statd/store/text.h"
#include "daemons/statd/store/writer.h"
#include "libstats/codes.h"
#include "platform/clock.h"
#include "text/day.h"

namespace {

class Maker {
  public:
    explicit Maker(std::int64_t names) : names_(names) {}

    stats::Record Make(std::int64_t when) {
        stats::Record record;
        record.received = when;
        record.stamp = "0";
        record.sourceHost = 0x0A + (Skewed() << 8);
        record.agentId = kStatAgentScanner;
        record.eventCode = Event();
        record.sender = "user@sender" + std::to_string(Skewed()) + ".example";
        record.recipients = "a@rcpt" + std::to_string(Skewed() % 50) + ".example";
        record.value = static_cast<std::int64_t>(random_() % 200000);
        record.count = 0;
        if (*record.eventCode >= kStatInfectedRefused && *record.eventCode != kStatNotScanned)
            record.label = "Test.Signature-" + std::to_string(random_() % 30);
        return record;
    }

  private:
    // Small numbers come often.
    std::int64_t Skewed() {
        const double at = std::uniform_real_distribution<double>(0, 1)(random_);
        return static_cast<std::int64_t>(at * at * at * static_cast<double>(names_));
    }
    std::int32_t Event() {
        const auto at = random_() % 1000;
        if (at < 800) return kStatClean;
        if (at < 870) return kStatPeerDenied;
        if (at < 910) return kStatRecipientHarvest;
        if (at < 930) return kStatSenderDropped;
        if (at < 970) return kStatInfectedRefused;
        return at < 980   ? kStatInfectedDropped
               : at < 990 ? kStatInfectedRedirected
                          : kStatNotScanned;
    }

    std::mt19937_64 random_{1};
    const std::int64_t names_;
};

}  // namespace

int main(int argc, char** argv) {
    if (argc != 5) return 2;
    const std::int64_t count = std::atoll(argv[2]);
    const std::int64_t days = std::atoll(argv[3]);
    std::string note;
    const auto database = stats::Database::Open(argv[1], note);
    if (database == nullptr) {
        std::fprintf(stderr, "%s\n", note.c_str());
        return 1;
    }
    stats::Writer writer(*database);
    Maker maker(std::atoll(argv[4]));
    const std::int64_t now = platform::UtcSeconds();
    const std::int64_t from = now - days * kDaySeconds;
    std::vector<stats::Record> batch;
    for (std::int64_t i = 0; i < count; ++i) {
        batch.push_back(maker.Make(from + i * (now - from) / count));
        if (batch.size() < 1000 && i + 1 < count) continue;
        if (!writer.Write(batch)) {
            std::fprintf(stderr, "%s\n", database->Error().c_str());
            return 1;
        }
        batch.clear();
    }
    while (stats::TrimNamesStep(*database, DayOf(now))) {
    }
    return 0;
}
