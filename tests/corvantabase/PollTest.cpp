#include "corvantabase/Poll.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <future>
#include <mutex>
#include <thread>

namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

// Generous bound for "promptly": far below the timers the loop would
// otherwise wait for, far above any scheduling delay.
constexpr auto kPrompt = 5s;
constexpr int64_t kOneHourUs = 3600LL * 1000 * 1000;

class PollTest : public ::testing::Test {
protected:
    void SetUp() override { Poll_InitDefault(); }
    void TearDown() override { Poll_Exit(); }

    PollExitFlag quit;
};

void Noop(void*) {}

void RaiseFlag(void* flag) { static_cast<PollExitFlag*>(flag)->Raise(); }

struct Counter {
    std::atomic<int> runs{0};
    std::thread::id thread;
    Clock::time_point firstRun;
};

void Count(void* data)
{
    auto* counter = static_cast<Counter*>(data);
    if (counter->runs++ == 0) {
        counter->thread = std::this_thread::get_id();
        counter->firstRun = Clock::now();
    }
}

TEST_F(PollTest, OneShotRunsOnceOnTheLoopThreadAfterItsDelay)
{
    Counter counter;
    const auto start = Clock::now();
    ASSERT_EQ(Poll_CB_RTime(Count, &counter, 30'000, false, nullptr), kPollSuccess);
    ASSERT_EQ(Poll_CB_RTime(RaiseFlag, &quit, 200'000, false, nullptr), kPollSuccess);

    Poll_Loop(true, &quit, POLL_CLASS_MAIN);

    EXPECT_EQ(counter.runs.load(), 1);
    EXPECT_EQ(counter.thread, std::this_thread::get_id());
    EXPECT_GE(counter.firstRun - start, 30ms);
    EXPECT_GE(Clock::now() - start, 200ms);
    // It fired, so there is nothing left to remove.
    EXPECT_FALSE(Poll_CB_RTimeRemove(Count, &counter, false));
}

struct Periodic {
    int runs = 0;
    int stopAt = 0;
    PollExitFlag* quit = nullptr;
};

void PeriodicRun(void* data)
{
    auto* periodic = static_cast<Periodic*>(data);
    if (++periodic->runs == periodic->stopAt) {
        EXPECT_TRUE(Poll_CB_RTimeRemove(PeriodicRun, periodic, true));
        // Leave the loop running well past a few more periods.
        EXPECT_EQ(Poll_CB_RTime(RaiseFlag, periodic->quit, 100'000, false, nullptr), kPollSuccess);
    }
}

TEST_F(PollTest, PeriodicRunsUntilItRemovesItself)
{
    Periodic periodic{0, 5, &quit};
    ASSERT_EQ(Poll_CB_RTime(PeriodicRun, &periodic, 5'000, true, nullptr), kPollSuccess);
    Poll_Loop(true, &quit, POLL_CLASS_MAIN);
    EXPECT_EQ(periodic.runs, 5);
}

TEST_F(PollTest, RemovalMatchesCallbackDataAndKind)
{
    Counter a, b;
    ASSERT_EQ(Poll_CB_RTime(Count, &a, 10'000, false, nullptr), kPollSuccess);
    ASSERT_EQ(Poll_CB_RTime(Count, &b, 10'000, false, nullptr), kPollSuccess);
    ASSERT_EQ(Poll_CB_RTime(Count, &b, 10'000, true, nullptr), kPollSuccess);

    EXPECT_FALSE(Poll_CB_RTimeRemove(Noop, &a, false));
    EXPECT_FALSE(Poll_CB_RTimeRemove(Count, &a, true));
    EXPECT_TRUE(Poll_CB_RTimeRemove(Count, &a, false));
    EXPECT_FALSE(Poll_CB_RTimeRemove(Count, &a, false));
    EXPECT_TRUE(Poll_CB_RTimeRemove(Count, &b, true));

    ASSERT_EQ(Poll_CB_RTime(RaiseFlag, &quit, 150'000, false, nullptr), kPollSuccess);
    Poll_Loop(true, &quit, POLL_CLASS_MAIN);
    EXPECT_EQ(a.runs.load(), 0);
    EXPECT_EQ(b.runs.load(), 1);
}

TEST_F(PollTest, ExitFlagFromAnotherThreadEndsTheWaitAtOnce)
{
    Counter far;
    ASSERT_EQ(Poll_CB_RTime(Count, &far, kOneHourUs, false, nullptr), kPollSuccess);
    std::promise<Clock::time_point> raisedAt;
    std::thread raiser([&] {
        // The loop may or may not be waiting yet; either way it must return.
        raisedAt.set_value(Clock::now());
        quit.Raise();
    });
    Poll_Loop(true, &quit, POLL_CLASS_MAIN);
    const auto returned = Clock::now();
    raiser.join();
    EXPECT_LT(returned - raisedAt.get_future().get(), kPrompt);
    EXPECT_EQ(far.runs.load(), 0);

    // A flag that is up already: the loop does not start, not even for due work.
    Counter due;
    ASSERT_EQ(Poll_CB_RTime(Count, &due, 0, false, nullptr), kPollSuccess);
    Poll_Loop(true, &quit, POLL_CLASS_MAIN);
    EXPECT_EQ(due.runs.load(), 0);
}

TEST_F(PollTest, RegistrationFromAnotherThreadWakesTheWait)
{
    ASSERT_EQ(Poll_CB_RTime(Noop, nullptr, kOneHourUs, false, nullptr), kPollSuccess);
    const auto start = Clock::now();
    std::thread registrar([&] { EXPECT_EQ(Poll_CB_RTime(RaiseFlag, &quit, 0, false, nullptr), kPollSuccess); });
    Poll_Loop(true, &quit, POLL_CLASS_MAIN);
    registrar.join();
    EXPECT_LT(Clock::now() - start, kPrompt);
}

TEST_F(PollTest, TearDownFromAnotherThreadEndsTheLoopAndRefusesRegistrations)
{
    std::thread exiter([] { Poll_Exit(); });
    Poll_Loop(true, nullptr, POLL_CLASS_MAIN);
    exiter.join();

    EXPECT_EQ(Poll_CB_RTime(Noop, nullptr, 1000, false, nullptr), kPollNotInitialized);
    Poll_Loop(true, nullptr, POLL_CLASS_MAIN); // not initialised: returns at once

    Poll_InitDefault();
    EXPECT_EQ(Poll_CB_RTime(nullptr, nullptr, 1000, false, nullptr), kPollInvalidArgument);
    EXPECT_EQ(Poll_CB_RTime(Noop, nullptr, -1, false, nullptr), kPollInvalidArgument);
    EXPECT_EQ(Poll_CB_RTime(Noop, nullptr, 0, true, nullptr), kPollInvalidArgument);
}

TEST_F(PollTest, SinglePassRunsOnlyWhatIsDue)
{
    Counter now, later;
    ASSERT_EQ(Poll_CB_RTime(Count, &now, 0, false, nullptr), kPollSuccess);
    ASSERT_EQ(Poll_CB_RTime(Count, &later, kOneHourUs, false, nullptr), kPollSuccess);
    Poll_Loop(false, &quit, POLL_CLASS_MAIN);
    EXPECT_EQ(now.runs.load(), 1);
    EXPECT_EQ(later.runs.load(), 0);
    EXPECT_TRUE(Poll_CB_RTimeRemove(Count, &later, false));
}

// A callback that blocks until the test lets it go.
struct Blocking {
    std::mutex mutex;
    std::condition_variable changed;
    bool entered = false;
    bool removing = false;
    std::atomic<bool> finished{false};
};

void BlockUntilRemoverWaits(void* data)
{
    auto* b = static_cast<Blocking*>(data);
    std::unique_lock<std::mutex> guard(b->mutex);
    b->entered = true;
    b->changed.notify_all();
    b->changed.wait(guard, [&] { return b->removing; });
    guard.unlock();
    // Gives a faulty removal the chance to return early; the outcome does not
    // depend on this pause when removal waits as it should.
    std::this_thread::sleep_for(20ms);
    b->finished = true;
}

TEST_F(PollTest, RemovalFromAnotherThreadWaitsForTheRunningCallback)
{
    Blocking blocking;
    ASSERT_EQ(Poll_CB_RTime(BlockUntilRemoverWaits, &blocking, 1000, true, nullptr), kPollSuccess);
    bool finishedWhenRemoved = false;
    bool removed = false;
    std::thread remover([&] {
        {
            std::unique_lock<std::mutex> guard(blocking.mutex);
            blocking.changed.wait(guard, [&] { return blocking.entered; });
            blocking.removing = true;
            blocking.changed.notify_all();
        }
        removed = Poll_CB_RTimeRemove(BlockUntilRemoverWaits, &blocking, true);
        finishedWhenRemoved = blocking.finished;
        quit.Raise();
    });
    Poll_Loop(true, &quit, POLL_CLASS_MAIN);
    remover.join();
    EXPECT_TRUE(removed);
    EXPECT_TRUE(finishedWhenRemoved);
    EXPECT_FALSE(Poll_CB_RTimeRemove(BlockUntilRemoverWaits, &blocking, true));
}

struct Locked {
    std::mutex lock;
    bool heldDuringRun = false;
};

void CheckHeld(void* data)
{
    auto* l = static_cast<Locked*>(data);
    // Another thread must find the lock taken while the callback runs.
    const bool free = std::async(std::launch::async, [l] {
        if (!l->lock.try_lock())
            return false;
        l->lock.unlock();
        return true;
    }).get();
    l->heldDuringRun = !free;
}

TEST_F(PollTest, GivenLockIsHeldAroundTheRun)
{
    Locked locked;
    ASSERT_EQ(Poll_CB_RTime(CheckHeld, &locked, 0, false, &locked.lock), kPollSuccess);
    ASSERT_EQ(Poll_CB_RTime(RaiseFlag, &quit, 1000, false, nullptr), kPollSuccess);
    Poll_Loop(true, &quit, POLL_CLASS_MAIN);
    EXPECT_TRUE(locked.heldDuringRun);
    // And released after it.
    EXPECT_TRUE(locked.lock.try_lock());
    locked.lock.unlock();
}

} // namespace
