#include "text/day.h"

#include <gtest/gtest.h>

TEST(Day, IsReadStrictlyAndCountedFromTheFloor) {
    EXPECT_EQ(ParseDay("1970-01-01"), 0);
    EXPECT_EQ(ParseDay("2024-02-29"), 19782);
    EXPECT_EQ(FormatDay(19782), "2024-02-29");
    for (const char* wrong :
         {"", "2023-02-29", "2024-13-01", "2024-1-01", "24-01-01", "2024-01-1x", "2024-01-011",
          "1969-12-31", "2024/01/01", "-024-01-01", "2024-+1-01"})
        EXPECT_FALSE(ParseDay(wrong)) << wrong;
    EXPECT_EQ(DayOf(-1), -1);
    EXPECT_EQ(FormatTime(86399), "1970-01-01 23:59:59");
}
