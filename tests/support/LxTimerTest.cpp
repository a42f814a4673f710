#include "support/LxElapsedTimer.h"
#include "support/LxTimer.h"

#include <gtest/gtest.h>

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
    ManualTimer t(1000, 5000);
    t.now += 100;
    EXPECT_EQ(t.Elapsed(LxTimer::OpPause), 100u);
    t.now += 50; // paused: does not count
    EXPECT_EQ(t.Elapsed(), 100u);
    EXPECT_EQ(t.Elapsed(LxTimer::OpRestart), 100u);
    EXPECT_TRUE(t.IsPaused()); // a restart keeps a paused timer paused, at 0
    t.now += 70;
    EXPECT_EQ(t.Elapsed(LxTimer::OpResume), 0u);
    t.now += 30;
    EXPECT_EQ(t.Elapsed(), 30u);
    EXPECT_EQ(t.Elapsed(LxTimer::OpResetAndPause), 30u);
    t.now += 10;
    EXPECT_EQ(t.Elapsed(LxTimer::OpResetAndRun), 0u);
    EXPECT_FALSE(t.IsPaused());
    t.now += 20;
    EXPECT_EQ(t.Elapsed(LxTimer::OpResume), 20u); // resuming a running timer changes nothing
    EXPECT_EQ(t.Elapsed(), 20u);
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

    // The elapsed timer counts nanoseconds of the monotonic clock.
    LxElapsedTimer elapsed;
    const uint64_t a = elapsed.Elapsed();
    EXPECT_LE(a, elapsed.Elapsed());
    EXPECT_EQ(elapsed.GetFrequency(), 1000000000u);
}

} // namespace
