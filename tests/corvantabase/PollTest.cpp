#include "corvantabase/Poll.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <thread>

namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

class PollTest : public ::testing::Test {
protected:
    void SetUp() override { Poll_InitDefault(); }
    void TearDown() override { Poll_Exit(); }
    // Runs the loop until `quit` is raised, after `delayUs` when given.
    void LoopFor(int64_t delayUs = -1)
    {
        if (delayUs >= 0) {
            ASSERT_EQ(Poll_CB_RTime(RaiseFlag, &quit, delayUs, false, nullptr), kPollSuccess);
        }
        Poll_Loop(true, &quit, POLL_CLASS_MAIN);
    }
    static void RaiseFlag(void* flag) { static_cast<PollExitFlag*>(flag)->Raise(); }
    PollExitFlag quit;
};

struct Counter {
    std::atomic<int> runs{0};
    int stopAt = 0; // a periodic one removes itself at this run
    std::thread::id thread;
    Clock::time_point firstRun;
};

void Count(void* data)
{
    auto* c = static_cast<Counter*>(data);
    if (c->runs++ == 0) {
        c->thread = std::this_thread::get_id();
        c->firstRun = Clock::now();
    }
    if (c->runs == c->stopAt) {
        EXPECT_TRUE(Poll_CB_RTimeRemove(Count, c, true));
    }
}

TEST_F(PollTest, TimersRunOnTheLoopThreadOnceOrUntilRemovedAndRemovalMatchesAllThree)
{
    Counter once, periodic, both; // `both` is registered once and periodically; its periodic one goes
    periodic.stopAt = 5;
    const auto start = Clock::now();
    ASSERT_EQ(Poll_CB_RTime(Count, &once, 30'000, false, nullptr), kPollSuccess);
    ASSERT_EQ(Poll_CB_RTime(Count, &periodic, 5'000, true, nullptr), kPollSuccess);
    ASSERT_EQ(Poll_CB_RTime(Count, &both, 10'000, false, nullptr), kPollSuccess);
    ASSERT_EQ(Poll_CB_RTime(Count, &both, 10'000, true, nullptr), kPollSuccess);
    EXPECT_FALSE(Poll_CB_RTimeRemove(RaiseFlag, &both, false));
    EXPECT_FALSE(Poll_CB_RTimeRemove(Count, &once, true));
    EXPECT_TRUE(Poll_CB_RTimeRemove(Count, &both, true));
    EXPECT_FALSE(Poll_CB_RTimeRemove(Count, &both, true));
    Poll_Loop(false, &quit, POLL_CLASS_MAIN); // a single pass runs only what is due
    EXPECT_EQ(once.runs + periodic.runs + both.runs, 0);
    LoopFor(300'000); // well past further periods, so a periodic that still re-armed would show
    EXPECT_EQ(once.runs, 1);
    EXPECT_EQ(once.thread, std::this_thread::get_id());
    EXPECT_GE(once.firstRun - start, 30ms);
    EXPECT_EQ(periodic.runs, 5);
    EXPECT_EQ(both.runs, 1);
    EXPECT_FALSE(Poll_CB_RTimeRemove(Count, &once, false)); // fired: nothing left
}

TEST_F(PollTest, FlagOrTimerFromAnotherThreadWakesAWaitOfAnHour)
{
    ASSERT_EQ(Poll_CB_RTime(RaiseFlag, nullptr, 3600LL * 1000 * 1000, false, nullptr), kPollSuccess);
    for (bool viaTimer : {false, true}) {
        quit.Reset();
        const auto start = Clock::now();
        std::thread other([&] {
            if (viaTimer)
                EXPECT_EQ(Poll_CB_RTime(RaiseFlag, &quit, 0, false, nullptr), kPollSuccess);
            else
                quit.Raise();
        });
        LoopFor();
        other.join();
        EXPECT_LT(Clock::now() - start, 30s) << viaTimer;
    }
}

struct Blocking {
    std::promise<void> entered;
    std::promise<void> removing;
    std::atomic<bool> finished{false};
};

void BlockUntilRemoving(void* data)
{
    auto* b = static_cast<Blocking*>(data);
    b->entered.set_value();
    b->removing.get_future().wait();
    std::this_thread::sleep_for(20ms); // room for a faulty removal to return early; a correct one waits anyway
    b->finished = true;
}

TEST_F(PollTest, RemovalFromAnotherThreadWaitsForTheRunningCallback)
{
    Blocking b;
    std::mutex clientLock;
    ASSERT_EQ(Poll_CB_RTime(BlockUntilRemoving, &b, 1000, true, &clientLock), kPollSuccess);
    bool removed = false, finishedFirst = false, lockHeld = false;
    std::thread remover([&] {
        b.entered.get_future().wait();
        lockHeld = !clientLock.try_lock(); // the given lock is held around the run
        if (!lockHeld)
            clientLock.unlock();
        b.removing.set_value();
        removed = Poll_CB_RTimeRemove(BlockUntilRemoving, &b, true);
        finishedFirst = b.finished;
        quit.Raise();
    });
    LoopFor();
    remover.join();
    EXPECT_TRUE(lockHeld);
    EXPECT_TRUE(removed);
    EXPECT_TRUE(finishedFirst);
}

TEST_F(PollTest, TearDownEndsTheLoopAndRefusesRegistrations)
{
    std::thread exiter([] { Poll_Exit(); });
    Poll_Loop(true, nullptr, POLL_CLASS_MAIN);
    exiter.join();
    EXPECT_EQ(Poll_CB_RTime(RaiseFlag, nullptr, 1000, false, nullptr), kPollNotInitialized);
    Poll_InitDefault();
    EXPECT_EQ(Poll_CB_RTime(nullptr, nullptr, 1000, false, nullptr), kPollInvalidArgument);
    EXPECT_EQ(Poll_CB_RTime(RaiseFlag, nullptr, -1, false, nullptr), kPollInvalidArgument);
    EXPECT_EQ(Poll_CB_RTime(RaiseFlag, nullptr, 0, true, nullptr), kPollInvalidArgument);
}

} // namespace
