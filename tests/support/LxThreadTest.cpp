#include "support/LxThread.h"

#include "SupportTestSupport.h"

#include <gtest/gtest.h>

#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <memory>
#include <string>
#include <thread>

namespace {

class LxThreadTest : public ::testing::Test {
protected:
    void TearDown() override { m_resources.Check(); }
    WaitableLogCapture log{LOG_LEVEL_VERBOSE};

private:
    ResourceSnapshot m_resources; // taken before the test body makes anything
};

std::ifstream TaskFile(pid_t tid, const char* name)
{
    return std::ifstream("/proc/self/task/" + std::to_string(tid) + "/" + name);
}

TEST_F(LxThreadTest, CallbackReturningFalseEndsTheThreadWithItsReason)
{
    std::string kernelName;
    {
        LxThread nothing("Nothing");
        EXPECT_FALSE(nothing.Start(nullptr, nullptr, 1));
        EXPECT_FALSE(nothing.IsRunning());

        LxThread thread("ExitingAtOnceWithALongName");
        ASSERT_TRUE(thread.Start(
            [&](void*, LxThread* owner) {
                TaskFile(gettid(), "comm") >> kernelName;
                EXPECT_EQ(owner, &thread);
                EXPECT_TRUE(owner->IsCurrentThread());
                return false;
            },
            nullptr, 10));
        EXPECT_FALSE(thread.IsCurrentThread());
        ASSERT_EQ(thread.GetExitedEvent().Wait(), 0);
        EXPECT_TRUE(thread.WaitForStop(0));
        EXPECT_FALSE(thread.IsRunning());
        EXPECT_EQ(thread.GetStopEvent().Wait(0), 0); // an ending callback signals stop as well
    }
    EXPECT_EQ(kernelName, "ExitingAtOnceWi"); // the kernel keeps 15 bytes
    EXPECT_EQ(log.Count("Thread ExitingAtOnceWithALongName started"), 1u);
    EXPECT_EQ(log.Count("Thread ExitingAtOnceWithALongName exited by callback"), 1u);
}

// With no interval the callback runs once at start and then once per wake;
// wakes and the stop come from other threads.
TEST_F(LxThreadTest, WithoutIntervalOnlyWakesRunTheCallbackAndStopEndsIt)
{
    std::atomic<int> cycles{0};
    LxEvent cycled(false, false);
    LxThread thread("Waker");
    ASSERT_TRUE(thread.Start(
        [&](void* context, LxThread*) {
            EXPECT_EQ(context, &cycles);
            ++cycles;
            cycled.Set();
            return true;
        },
        &cycles, LxEvent::kInfinite));
    ASSERT_EQ(cycled.Wait(), 0);
    EXPECT_FALSE(thread.Start([](void*, LxThread*) { return true; }, nullptr, 1)); // already started
    for (int i = 0; i < 3; ++i) {
        std::thread([&] { EXPECT_TRUE(thread.Wake()); }).join();
        ASSERT_EQ(cycled.Wait(), 0);
    }
    EXPECT_TRUE(thread.IsRunning());
    std::thread([&] { EXPECT_TRUE(thread.Stop(LxEvent::kInfinite)); }).join();
    EXPECT_FALSE(thread.IsRunning());
    EXPECT_EQ(cycles, 4);
    EXPECT_EQ(log.Count("Thread Waker exited"), 1u);

    // Stopped and joined: it may be started again.
    ASSERT_TRUE(thread.Start([](void*, LxThread*) { return false; }, nullptr, LxEvent::kInfinite));
    EXPECT_TRUE(thread.WaitForStop(LxEvent::kInfinite));
}

TEST_F(LxThreadTest, IntervalRunsCyclesUntilStopAndAThreadCannotWaitForItself)
{
    std::atomic<int> cycles{0};
    std::atomic<bool> selfStop{true};
    LxThread thread("Periodic");
    ASSERT_TRUE(thread.Start(
        [&](void*, LxThread* owner) {
            if (++cycles == 3)
                selfStop = owner->Stop(LxEvent::kInfinite); // asks, but cannot wait for itself
            return true;
        },
        nullptr, 1));
    EXPECT_TRUE(thread.WaitForStop(LxEvent::kInfinite));
    EXPECT_FALSE(selfStop);
    EXPECT_EQ(cycles, 3); // the stop request ended the loop before a fourth cycle
}

// A thread that leaves through pthread_exit never reaches the end of its loop;
// the end-of-thread event still lets a waiter see it go.
TEST_F(LxThreadTest, AThreadThatEndsUnexpectedlyIsNoticedAndJoined)
{
    LxThread thread("Vanishing");
    std::atomic<uint32_t> tid{0};
    ASSERT_TRUE(thread.Start(
        [&](void*, LxThread*) -> bool {
            tid = static_cast<uint32_t>(gettid());
            pthread_exit(nullptr);
        },
        nullptr, LxEvent::kInfinite));
    EXPECT_TRUE(thread.WaitForStop(LxEvent::kInfinite));
    char text[128];
    snprintf(text, sizeof text, "Thread Vanishing(0x%04X) exited unexpectedly", tid.load());
    EXPECT_EQ(log.Count(text), 1u);
    EXPECT_EQ(thread.GetExitedEvent().Wait(0), 0);
    EXPECT_EQ(log.Count("Thread Vanishing exited"), 0u);
}

// Dropping the handle of a running thread detaches it; it runs its callback
// one last time, with no owner, and ends by itself, dropping the shared data.
TEST_F(LxThreadTest, DroppingTheHandleOfARunningThreadLetsItEndAfterOneLastRun)
{
    std::atomic<int> cycles{0};
    std::atomic<int> ownerlessRuns{0};
    std::atomic<pid_t> tid{0};
    LxEvent started(true, false);
    LxEvent ended;
    {
        auto thread = std::make_unique<LxThread>("Orphan");
        ASSERT_TRUE(thread->Start(
            [&](void*, LxThread* owner) {
                ++cycles;
                ownerlessRuns += owner == nullptr;
                tid = gettid();
                started.Set();
                return true;
            },
            nullptr, LxEvent::kInfinite));
        ASSERT_EQ(started.Wait(), 0);
        // Dropped while the thread waits for its next cycle, in poll(2) or ppoll(2).
        const auto deadline = std::chrono::steady_clock::now() + kTestPatience;
        for (long call = -1; call != SYS_poll && call != SYS_ppoll; TaskFile(tid, "syscall") >> call) {
            ASSERT_LT(std::chrono::steady_clock::now(), deadline);
            std::this_thread::yield();
        }
        ended = thread->GetThreadHandleEvent();
    }
    ASSERT_EQ(ended.Wait(), 0);
    EXPECT_EQ(cycles, 2);
    EXPECT_EQ(ownerlessRuns, 1);
    EXPECT_EQ(log.Count("Setting deleted flag for thread Orphan(0x", true), 1u);
    EXPECT_EQ(log.Count("Thread Orphan was deleted"), 1u);
    // Named for debuggers after the module and the thread.
    EXPECT_EQ(log.Count("\"support_tests!Orphan\") [OK]", true), 1u);
}

} // namespace
