#include "support/LxEvent.h"
#include "support/LxMutex.h"
#include "support/LxMutexLock.h"

#include "SupportTestSupport.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <thread>

namespace {

// "... thread 0x%04x" as the warnings name a holder.
std::string HeldBy(const char* what, uint32_t tid)
{
    char tail[64];
    snprintf(tail, sizeof tail, " %s thread 0x%04x", what, tid);
    return tail;
}

TEST(LxMutexTest, RecursiveHoldCountsDepthAndOthersTimeOutSilently)
{
    WaitableLogCapture log(LOG_LEVEL_VERBOSE);
    LxMutex m;
    m.SetDeadlockWarningMs(1); // would fire if a finite wait ever used it
    ASSERT_TRUE(m.IsValid());
    ASSERT_TRUE(m.Acquire());
    ASSERT_TRUE(m.Acquire(0));
    EXPECT_EQ(m.GetDepth(), 2);
    EXPECT_EQ(m.GetOwnerThreadId(), static_cast<uint32_t>(gettid()));
    LxMutex copy = m; // a copy of the handle is the same mutex
    std::thread([&] {
        EXPECT_FALSE(copy.Acquire(0));
        EXPECT_FALSE(copy.Acquire(20));
        EXPECT_FALSE(copy.Release()); // not the holder
    }).join();
    EXPECT_TRUE(m.Release());
    EXPECT_TRUE(m.Release());
    EXPECT_EQ(m.GetDepth(), 0);
    EXPECT_FALSE(m.Release()); // not held any more
    {
        LxMutexLock guard(m);
        EXPECT_EQ(m.GetDepth(), 1);
        guard.Unlock(); // steps out, so another thread gets it, and back
        std::thread([&] {
            EXPECT_TRUE(copy.Acquire(0));
            EXPECT_TRUE(copy.Release());
        }).join();
        guard.Lock();
        EXPECT_TRUE(guard.IsHeld());
    }
    EXPECT_EQ(m.GetDepth(), 0);
    LxMutex owned(true);
    EXPECT_EQ(owned.GetDepth(), 1);
    EXPECT_TRUE(owned.Release());
    EXPECT_TRUE(log.Lines().empty());
}

// Thread 1 holds A and waits for B; thread 2 holds B and tries A: the classic
// inversion. Thread 2 backs off only once thread 1 has warned, so the warning
// cannot depend on how fast either thread runs.
TEST(LxMutexTest, LockOrderInversionWarnsOfAPossibleDeadlockOnce)
{
    WaitableLogCapture log(LOG_LEVEL_WARN);
    LxMutex a;
    LxMutex b;
    a.SetDeadlockWarningMs(50);
    b.SetDeadlockWarningMs(50);
    LxEvent aHeld(true, false);
    LxEvent bHeld(true, false);
    std::atomic<uint32_t> thread2{0};

    std::thread t2([&] {
        thread2 = static_cast<uint32_t>(gettid());
        ASSERT_TRUE(b.Acquire());
        bHeld.Set();
        ASSERT_EQ(aHeld.Wait(), 0);
        EXPECT_FALSE(a.Acquire(0)); // A is thread 1's
        EXPECT_TRUE(log.WaitFor("Possible deadlock", true));
        EXPECT_TRUE(b.Release());
    });
    std::thread t1([&] {
        ASSERT_TRUE(a.Acquire());
        aHeld.Set();
        ASSERT_EQ(bHeld.Wait(), 0);
        EXPECT_TRUE(b.Acquire()); // warns, then waits on until thread 2 backs off
        EXPECT_EQ(b.GetOwnerThreadId(), static_cast<uint32_t>(gettid()));
        EXPECT_TRUE(b.Release());
        EXPECT_TRUE(a.Release());
    });
    t1.join();
    t2.join();

    const auto lines = log.Lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].level, LOG_LEVEL_WARN);
    EXPECT_EQ(lines[0].function, "LxMutex::Acquire()");
    EXPECT_TRUE(lines[0].text.starts_with("Possible deadlock trying to acquire lock 0x")) << lines[0].text;
    EXPECT_TRUE(lines[0].text.ends_with(HeldBy("held by", thread2))) << lines[0].text;
}

// A holder that ends without releasing leaves the mutex abandoned; the next
// taker gets it with a warning and a fresh depth.
TEST(LxMutexTest, AbandonedMutexIsTakenOverWithAWarning)
{
#if defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "ThreadSanitizer does not follow a robust mutex to its next owner";
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
    GTEST_SKIP() << "ThreadSanitizer does not follow a robust mutex to its next owner";
#endif
#endif
    WaitableLogCapture log(LOG_LEVEL_WARN);
    LxMutex m;
    std::atomic<uint32_t> holder{0};
    std::thread([&] {
        holder = static_cast<uint32_t>(gettid());
        ASSERT_TRUE(m.Acquire());
        ASSERT_TRUE(m.Acquire()); // a recursive hold: the taker still starts at depth 1
    }).join();
    ASSERT_TRUE(m.Acquire());
    EXPECT_EQ(m.GetDepth(), 1);
    EXPECT_EQ(m.GetOwnerThreadId(), static_cast<uint32_t>(gettid()));
    EXPECT_TRUE(m.Release());
    const auto lines = log.Lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_TRUE(lines[0].text.starts_with("Acquired abandoned lock 0x")) << lines[0].text;
    EXPECT_TRUE(lines[0].text.ends_with(HeldBy("previously held by", holder))) << lines[0].text;
}

} // namespace
