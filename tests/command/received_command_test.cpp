#include "command/received_command.h"

#include <gtest/gtest.h>

#include <limits>

TEST(TruncateToInt32, TruncatesTowardsZero)
{
    EXPECT_EQ(TruncateToInt32(4095.0), 4095);
    EXPECT_EQ(TruncateToInt32(1.9), 1);
    EXPECT_EQ(TruncateToInt32(-1.9), -1);
    EXPECT_EQ(TruncateToInt32(-0.0), 0);
    EXPECT_EQ(TruncateToInt32(2147483647.0), 2147483647);
    EXPECT_EQ(TruncateToInt32(2147483646.5), 2147483646);
    EXPECT_EQ(TruncateToInt32(-2147483648.0), std::numeric_limits<int32_t>::min());
}

TEST(TruncateToInt32, WhatDoesNotFitBecomesTheNearestLimitAndNanZero)
{
    EXPECT_EQ(TruncateToInt32(2147483648.0), std::numeric_limits<int32_t>::max());
    EXPECT_EQ(TruncateToInt32(1e300), std::numeric_limits<int32_t>::max());
    EXPECT_EQ(TruncateToInt32(std::numeric_limits<double>::infinity()), std::numeric_limits<int32_t>::max());
    EXPECT_EQ(TruncateToInt32(-2147483649.0), std::numeric_limits<int32_t>::min());
    EXPECT_EQ(TruncateToInt32(-std::numeric_limits<double>::infinity()), std::numeric_limits<int32_t>::min());
    EXPECT_EQ(TruncateToInt32(std::numeric_limits<double>::quiet_NaN()), 0);
}
