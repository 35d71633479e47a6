#include "trelis/keys/size.h"

#include <gtest/gtest.h>

namespace {

TEST(Size, NumbersWithUnits) {
    const struct {
        const char* text;
        std::optional<long long> size;
    } cases[] = {{"0", 0},
                 {"1000", 1000},
                 {"25M", 25LL << 20},
                 {"25 mb", 25LL << 20},
                 {"512k", 512LL << 10},
                 {"3G", 3LL << 30},
                 {"", std::nullopt},
                 {"M", std::nullopt},
                 {"-1", std::nullopt},
                 {"25X", std::nullopt},
                 {"25MM", std::nullopt},
                 {"9223372036854775807", 9223372036854775807LL},
                 {"9223372036854775808", std::nullopt},
                 {"9007199254740992K", std::nullopt}};
    for (const auto& each : cases) EXPECT_EQ(ParseSize(each.text), each.size) << each.text;
}

TEST(Size, DurationsHaveAUnit) {
    const struct {
        const char* text;
        std::optional<long long> seconds;
    } cases[] = {
        {"90s", 90},           {"10m", 600},         {"2 H", 7200},
        {"1d", 86400},         {"2w", 1209600},      {"0m", 0},
        {"10", std::nullopt},  {"", std::nullopt},   {"-1m", std::nullopt},
        {"1mm", std::nullopt}, {"1y", std::nullopt}, {"9223372036854775807m", std::nullopt}};
    for (const auto& each : cases) EXPECT_EQ(ParseDuration(each.text), each.seconds) << each.text;
}

}  // namespace
