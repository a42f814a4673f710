#include "support/LxElapsedTimer.h"
#include "support/LxTimer.h"

#include <gtest/gtest.h>

namespace {

// A tick source the test moves by hand, at 1000 ticks per second.
class ManualTimer final : public LxTimer {
public:
    ManualTimer() { Start(); }
    uint64_t GetTicks() const override { return now; }
    uint64_t GetFrequency() const override { return 1000; }
    uint64_t now = 5000;
};

TEST(LxTimerTest, EveryOperationReturnsTheElapsedTimeBeforeItApplies)
{
    ManualTimer t;
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
    class Microseconds final : public LxTimer {
    public:
        Microseconds() { Start(); }
        uint64_t GetTicks() const override { return now; }
        uint64_t GetFrequency() const override { return 1000000; }
        uint64_t now = 1;
    } t;
    t.now += 1499;
    EXPECT_EQ(t.ElapsedMs(), 1u);
    t.now += 1;
    EXPECT_EQ(t.ElapsedMs(), 2u); // 1.5 ms rounds up
    EXPECT_DOUBLE_EQ(t.ElapsedSeconds(), 0.0015);
    // Far beyond what ticks * 1000 holds in 64 bits.
    EXPECT_EQ(t.TicksToMs(uint64_t{1} << 62), ((uint64_t{1} << 62) + 500) / 1000);
}

TEST(LxTimerTest, ElapsedTimerRunsOnTheMonotonicClock)
{
    LxElapsedTimer t;
    const uint64_t a = t.Elapsed();
    const uint64_t b = t.Elapsed();
    EXPECT_LE(a, b);
    EXPECT_EQ(t.GetFrequency(), 1000000000u);
}

} // namespace
