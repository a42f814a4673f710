#include "support/DurationText.h"

#include <gtest/gtest.h>

#include <cstdint>

namespace {

TEST(LxDurationTextTest, SecondsUnitsClocksAndDays)
{
    const struct {
        double seconds;
        int precision;
        std::string text;
    } cases[] = {
        // Below a minute: the unit of the precision, truncated, never rounded.
        {0.0, 3, "0ms"}, {0.25, 3, "250ms"}, {0.999, 3, "999ms"}, {0.0009, 3, "0ms"}, {1.0, 3, "1.000s"},
        {1.5, 3, "1.500s"}, {1.9999, 3, "1.999s"}, {59.999, 3, "59.999s"}, {0.000123, 6, "123us"},
        {0.5, 9, "500000000ns"}, {0.5, 2, "0.50s"}, {2.5, 1, "2.5s"},
        // Precision 0 rounds the seconds.
        {0.4, 0, "0s"}, {0.5, 0, "1s"}, {59.4, 0, "59s"}, {59.5, 0, "0:01:00"}, {3661, 0, "1:01:01"},
        {60, 3, "0:01:00.000"}, {61.5, 3, "0:01:01.500"}, {3599.999, 3, "0:59:59.999"}, {3600, 3, "1:00:00.000"},
        {86399, 3, "23:59:59.000"}, {86400, 3, "1 day"}, {86400, 0, "1 day"}, {86400.5, 3, "1 day 0:00:00.500"},
        {86401, 3, "1 day 0:00:01.000"}, {2 * 86400, 3, "2 days"}, {2 * 86400 + 3600, 0, "2 days 1:00:00"},
        // The precision is clamped; digits past what 64 bits hold are zeros.
        {1.5, 20, "1.50000000000000000000s"}, {1.5, 40, "1.5" + std::string(31, '0') + "s"},
        {1.5, -2, "2s"}, {-1.5, 3, "-1.500s"},
    };
    for (const auto& c : cases)
        EXPECT_EQ(DurationText(c.seconds, c.precision), c.text) << c.seconds << " precision " << c.precision;
}

TEST(LxSizeTextTest, BytesBelowAThousandThenBinaryUnitsUpToPeta)
{
    const struct {
        int64_t bytes;
        int precision;
        const char* text;
    } cases[] = {
        {0, 3, "0B"}, {999, 3, "999B"}, {-999, 3, "-999B"}, {1000, 3, "0.977KB"}, {1024, 3, "1.000KB"},
        {-1024, 1, "-1.0KB"}, {1023 * 1024, 3, "0.999MB"}, {1024 * 1024, 3, "1.000MB"},
        {int64_t{1} << 40, 3, "1.000TB"}, {int64_t{1} << 50, 3, "1.000PB"},
        {INT64_MAX, 3, "8192.000PB"}, // nothing beyond P: large counts grow in front of the point
        {1000, 0, " 1KB"},            // width precision + 2 pads short numbers
    };
    for (const auto& c : cases)
        EXPECT_EQ(SizeText(c.bytes, c.precision), c.text) << c.bytes << " precision " << c.precision;
}

} // namespace
