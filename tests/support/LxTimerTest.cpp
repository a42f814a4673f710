#include "support/DurationText.h"
#include "support/LxElapsedTimer.h"
#include "support/LxTimer.h"

#include <gtest/gtest.h>

#include <cstdint>

namespace {

// A tick source the test moves by hand.
class ManualTimer final : public LxTimer {
public:
    explicit ManualTimer(uint64_t frequency, uint64_t start) : now(start), m_frequency(frequency) { Start(); }
    uint64_t GetTicks() const override { return now; }
    uint64_t GetFrequency() const override { return m_frequency; }
    uint64_t now;

private:
    uint64_t m_frequency;
};

TEST(LxTimerTest, EveryOperationReturnsTheElapsedTimeBeforeItApplies)
{
    const struct {
        uint64_t advance;
        LxTimer::Op op;
        uint64_t elapsed;
        bool pausedAfter;
    } steps[] = {
        {100, LxTimer::OpPause, 100, true},
        {50, LxTimer::OpNone, 100, true},       // paused: does not count
        {0, LxTimer::OpRestart, 100, true},     // a restart keeps a paused timer paused, at 0
        {70, LxTimer::OpResume, 0, false},
        {30, LxTimer::OpResetAndPause, 30, true},
        {10, LxTimer::OpResetAndRun, 0, false},
        {20, LxTimer::OpResume, 20, false},     // resuming a running timer changes nothing
        {0, LxTimer::OpNone, 20, false},
    };
    ManualTimer t(1000, 5000);
    for (const auto& step : steps) {
        t.now += step.advance;
        EXPECT_EQ(t.Elapsed(step.op), step.elapsed) << "op " << step.op << " at " << t.now;
        EXPECT_EQ(t.IsPaused(), step.pausedAfter) << "op " << step.op << " at " << t.now;
    }
}

TEST(LxTimerTest, MillisecondsAreRoundedAndSecondsAreExact)
{
    ManualTimer t(1000000, 1);
    t.now += 1499;
    EXPECT_EQ(t.ElapsedMs(), 1u);
    t.now += 1;
    EXPECT_EQ(t.ElapsedMs(), 2u); // 1.5 ms rounds up
    EXPECT_DOUBLE_EQ(t.ElapsedSeconds(), 0.0015);
    // Far beyond what ticks * 1000 holds in 64 bits.
    EXPECT_EQ(t.TicksToMs(uint64_t{1} << 62), ((uint64_t{1} << 62) + 500) / 1000);
    EXPECT_EQ(LxElapsedTimer().GetFrequency(), 1000000000u); // nanoseconds of the monotonic clock
}

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
