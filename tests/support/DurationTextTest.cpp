#include "support/DurationText.h"

#include <gtest/gtest.h>

#include <cstdint>

namespace {

TEST(LxDurationTextTest, BelowAMinuteUsesSecondsOrTheUnitOfThePrecision)
{
    EXPECT_EQ(DurationText(0.0, 3), "0ms");
    EXPECT_EQ(DurationText(0.25, 3), "250ms");
    EXPECT_EQ(DurationText(0.999, 3), "999ms");
    EXPECT_EQ(DurationText(0.0009, 3), "0ms"); // truncated, not rounded
    EXPECT_EQ(DurationText(1.0, 3), "1.000s");
    EXPECT_EQ(DurationText(1.5, 3), "1.500s");
    EXPECT_EQ(DurationText(1.9999, 3), "1.999s");
    EXPECT_EQ(DurationText(59.999, 3), "59.999s");
    EXPECT_EQ(DurationText(0.000123, 6), "123us");
    EXPECT_EQ(DurationText(0.5, 9), "500000000ns");
    EXPECT_EQ(DurationText(0.5, 2), "0.50s");
    EXPECT_EQ(DurationText(2.5, 1), "2.5s");
}

TEST(LxDurationTextTest, PrecisionZeroRoundsTheSeconds)
{
    EXPECT_EQ(DurationText(0.4, 0), "0s");
    EXPECT_EQ(DurationText(0.5, 0), "1s");
    EXPECT_EQ(DurationText(59.4, 0), "59s");
    EXPECT_EQ(DurationText(59.5, 0), "0:01:00");
    EXPECT_EQ(DurationText(3661, 0), "1:01:01");
}

TEST(LxDurationTextTest, MinutesHoursAndDays)
{
    EXPECT_EQ(DurationText(60, 3), "0:01:00.000");
    EXPECT_EQ(DurationText(61.5, 3), "0:01:01.500");
    EXPECT_EQ(DurationText(3599.999, 3), "0:59:59.999");
    EXPECT_EQ(DurationText(3600, 3), "1:00:00.000");
    EXPECT_EQ(DurationText(86399, 3), "23:59:59.000");
    EXPECT_EQ(DurationText(86400, 3), "1 day");
    EXPECT_EQ(DurationText(86400, 0), "1 day");
    EXPECT_EQ(DurationText(86400.5, 3), "1 day 0:00:00.500");
    EXPECT_EQ(DurationText(86401, 3), "1 day 0:00:01.000");
    EXPECT_EQ(DurationText(2 * 86400, 3), "2 days");
    EXPECT_EQ(DurationText(2 * 86400 + 3600, 0), "2 days 1:00:00");
}

TEST(LxDurationTextTest, PrecisionIsClampedAndLongFractionsPadWithZeros)
{
    EXPECT_EQ(DurationText(1.5, 20), "1.50000000000000000000s");
    EXPECT_EQ(DurationText(1.5, 40), "1." + std::string("5") + std::string(31, '0') + "s");
    EXPECT_EQ(DurationText(1.5, -2), "2s");
    EXPECT_EQ(DurationText(-1.5, 3), "-1.500s");
}

TEST(LxSizeTextTest, BytesBelowAThousandThenBinaryUnitsUpToPeta)
{
    EXPECT_EQ(SizeText(0, 3), "0B");
    EXPECT_EQ(SizeText(999, 3), "999B");
    EXPECT_EQ(SizeText(-999, 3), "-999B");
    EXPECT_EQ(SizeText(1000, 3), "0.977KB");
    EXPECT_EQ(SizeText(1024, 3), "1.000KB");
    EXPECT_EQ(SizeText(-1024, 1), "-1.0KB");
    EXPECT_EQ(SizeText(1023 * 1024, 3), "0.999MB");
    EXPECT_EQ(SizeText(1024 * 1024, 3), "1.000MB");
    EXPECT_EQ(SizeText(int64_t{1} << 40, 3), "1.000TB");
    EXPECT_EQ(SizeText(int64_t{1} << 50, 3), "1.000PB");
    // Nothing beyond P: large counts grow in front of the point.
    EXPECT_EQ(SizeText(INT64_MAX, 3), "8192.000PB");
    // Width precision + 2 pads short numbers.
    EXPECT_EQ(SizeText(1000, 0), " 1KB");
}

} // namespace
