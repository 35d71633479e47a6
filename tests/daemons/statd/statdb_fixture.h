// A database in the test's own directory, and records to put in.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <string>

#include "daemons/statd/store/database.h"
#include "daemons/statd/store/record.h"
#include "daemons/statd/store/text.h"
#include "libstats/codes.h"
#include "support/instance.h"
#include "text/day.h"

namespace stats {

inline constexpr std::int64_t kDay = 20000;  // 2024-10-04
inline constexpr std::int64_t kNoon = kDay * kDaySeconds + 12 * kHourSeconds;

inline Record MakeRecord(std::int64_t when, std::int32_t event, const std::string& sender = "",
                         const std::string& recipients = "") {
    Record record;
    record.received = when;
    record.eventCode = event;
    record.sourceHost = 0x0100007F;
    record.value = 100;
    if (!sender.empty()) record.sender = sender;
    if (!recipients.empty()) record.recipients = recipients;
    return record;
}

class StatFixture : public testing::Test {
  protected:
    StatFixture() {
        std::string note;
        database_ = Database::Open(path_, note);
        EXPECT_NE(database_, nullptr) << note;
    }
    ~StatFixture() override {
        database_.reset();
        for (const auto& entry : std::filesystem::directory_iterator(g_instance.Path())) {
            if (entry.path().filename().string().starts_with("stats"))
                std::filesystem::remove(entry.path());
        }
    }
    std::int64_t Count(const std::string& from) {
        return database_->Number("SELECT ifnull(sum(n), 0) FROM (SELECT " + from + ")", -1);
    }
    const std::string path_ = g_instance.Path() + "/stats.db";
    std::unique_ptr<Database> database_;
};

}  // namespace stats
