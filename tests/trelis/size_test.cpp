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

}  // namespace
