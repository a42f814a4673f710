// Events, mutexes, threads and reference counts.

#include "support/LxEvent.h"
#include "support/LxMutex.h"
#include "support/LxThread.h"
#include "support/RCObject.h"
#include "support/RCPtr.h"
#include "support/WkPtr.h"

#include "SupportTestSupport.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <fstream>
#include <memory>
#include <thread>

namespace {

class LxSyncTest : public ::testing::Test {
protected:
    void TearDown() override { m_resources.Check(); }
    ScopedLogCapture log{LOG_LEVEL_VERBOSE};

private:
    ResourceSnapshot m_resources; // taken before the test body makes anything
};
using LxEventTest = LxSyncTest;
using LxMutexTest = LxSyncTest;
using LxThreadTest = LxSyncTest;

std::ifstream TaskFile(pid_t tid, const char* name)
{
    return std::ifstream("/proc/self/task/" + std::to_string(tid) + "/" + name);
}

// The one line logged: a mutex warning that names a holder by its thread id.
void ExpectOneMutexWarning(const ScopedLogCapture& log, const std::string& start, const char* by, uint32_t tid)
{
    char end[64];
    snprintf(end, sizeof end, " %s thread 0x%04x", by, tid);
    const auto lines = log.Lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].level, LOG_LEVEL_WARN);
    EXPECT_EQ(lines[0].function, "LxMutex::Acquire()");
    EXPECT_TRUE(lines[0].text.starts_with(start) && lines[0].text.ends_with(end)) << lines[0].text;
}

TEST_F(LxEventTest, ManualResetStaysSignalledAutoResetReleasesOneWaitAndTheLowestIndexWins)
{
    LxEvent manual(true, false);
    EXPECT_EQ(manual.Wait(0), LxEvent::kTimeout);
    EXPECT_TRUE(manual.Set());
    EXPECT_TRUE(manual.Set());
    EXPECT_EQ(manual.Wait(0), 0);
    EXPECT_EQ(manual.Wait(0), 0);
    EXPECT_TRUE(manual.Reset());
    EXPECT_EQ(manual.Wait(0), LxEvent::kTimeout);
    LxEvent automatic(false, true);
    EXPECT_EQ(automatic.Wait(0), 0); // initially signalled
    EXPECT_EQ(automatic.Wait(0), LxEvent::kTimeout);
    automatic.Set();
    automatic.Set(); // two settings before a wait release one wait
    EXPECT_EQ(automatic.Wait(0), 0);
    EXPECT_EQ(automatic.Wait(0), LxEvent::kTimeout);
    // Of several, the lowest signalled index is reported, and only an auto-reset one taken.
    LxEvent later(true, true);
    automatic.Set();
    EXPECT_EQ(LxEvent::WaitForMultiple({&manual, &automatic, &later}, false, 0), 1);
    EXPECT_EQ(LxEvent::WaitForMultiple({&manual, &automatic, &later}, false, 0), 2);
    std::thread setter([&] { manual.Set(); }); // a wake from another thread ends an infinite wait
    EXPECT_EQ(LxEvent::WaitForMultiple({&automatic, &manual}, false, LxEvent::kInfinite), 1);
    setter.join();
    LxEvent empty;
    EXPECT_FALSE(empty.Set());
    std::vector<LxEvent*> tooMany(LxEvent::kMaxWaitObjects + 1, &manual);
    for (const std::vector<LxEvent*>& bad : {std::vector<LxEvent*>{&manual, nullptr}, {&empty}, {}, tooMany})
        EXPECT_EQ(LxEvent::WaitForMultiple(bad, false, 0), LxEvent::kFailed) << bad.size();
}

TEST_F(LxEventTest, AutoResetSetReleasesExactlyOneOfTwoWaiters)
{
    LxEvent event(false, false);
    LxEvent done(false, false);
    std::atomic<int> released{0};
    auto waiter = [&] {
        if (event.Wait() == 0) {
            ++released;
            done.Set();
        }
    };
    std::thread first(waiter), second(waiter);
    event.Set();
    ASSERT_EQ(done.Wait(), 0);
    EXPECT_EQ(released, 1); // the second waiter needs a second setting
    event.Set();
    ASSERT_EQ(done.Wait(), 0);
    first.join();
    second.join();
    EXPECT_EQ(released, 2);
}

// An event can wrap any descriptor; the settings watcher waits on inotify's.
TEST_F(LxEventTest, ADescriptorEventIsSignalledWhileReadableAndClosedOnlyWhenOwned)
{
    int fds[2];
    ASSERT_EQ(pipe2(fds, O_CLOEXEC), 0);
    {
        LxEvent borrowed(fds[0], false);
        LxEvent stop(true, false);
        EXPECT_EQ(LxEvent::WaitForMultiple({&stop, &borrowed}, false, 0), LxEvent::kTimeout);
        EXPECT_FALSE(borrowed.Set()); // only its owner changes its state
        std::thread writer([&] { EXPECT_EQ(write(fds[1], "x", 1), 1); });
        EXPECT_EQ(LxEvent::WaitForMultiple({&stop, &borrowed}, false, LxEvent::kInfinite), 1);
        writer.join();
        EXPECT_EQ(borrowed.Wait(0), 0); // not consumed by the wait
    }
    EXPECT_EQ(close(fds[0]), 0);
    { LxEvent owned(fds[1], true); } // the leak check finds it if it stays open
}

TEST_F(LxMutexTest, RecursiveHoldsCountOthersTimeOutAndAnAbandonedOneIsTakenOver)
{
    LxMutex m;
    m.SetDeadlockWarningMs(1); // would fire if a finite wait ever used it
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
    EXPECT_FALSE(m.Release()); // not held any more
    EXPECT_TRUE(log.Lines().empty());
#if defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "ThreadSanitizer does not follow a robust mutex to its next owner";
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
    GTEST_SKIP() << "ThreadSanitizer does not follow a robust mutex to its next owner";
#endif
#endif
    std::atomic<uint32_t> holder{0};
    std::thread([&] {
        holder = static_cast<uint32_t>(gettid());
        ASSERT_TRUE(copy.Acquire());
        ASSERT_TRUE(copy.Acquire()); // a recursive hold: the taker still starts at depth 1
    }).join();
    ASSERT_TRUE(m.Acquire());
    EXPECT_EQ(m.GetDepth(), 1);
    EXPECT_EQ(m.GetOwnerThreadId(), static_cast<uint32_t>(gettid()));
    EXPECT_TRUE(m.Release());
    ExpectOneMutexWarning(log, "Acquired abandoned lock 0x", "previously held by", holder);
}

// Thread 1 holds A and waits for B; thread 2 holds B and tries A: the classic
// inversion. Thread 2 backs off only once thread 1 has warned, so the warning
// cannot depend on how fast either thread runs.
TEST_F(LxMutexTest, LockOrderInversionWarnsOfAPossibleDeadlockOnce)
{
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
        EXPECT_TRUE(WaitForLine(log, "Possible deadlock"));
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
    ExpectOneMutexWarning(log, "Possible deadlock trying to acquire lock 0x", "held by", thread2);
}

TEST_F(LxThreadTest, RunsPerWakeUntilStoppedOrTheCallbackSaysNo)
{
    std::atomic<int> cycles{0};
    LxEvent cycled(false, false);
    LxThread thread("ExitingAtOnceWithALongName");
    auto callback = [&](void* context, LxThread* owner) {
        EXPECT_EQ(context, &cycles);
        EXPECT_TRUE(owner->IsCurrentThread());
        ++cycles;
        cycled.Set();
        return true;
    };
    EXPECT_FALSE(thread.Start(nullptr, nullptr, 1));
    ASSERT_TRUE(thread.Start(callback, &cycles, LxEvent::kInfinite));
    ASSERT_EQ(cycled.Wait(), 0);
    EXPECT_FALSE(thread.IsCurrentThread());
    EXPECT_FALSE(thread.Start(callback, &cycles, 1)); // already started
    std::thread([&] { EXPECT_TRUE(thread.Wake()); }).join();
    ASSERT_EQ(cycled.Wait(), 0);
    std::thread([&] { EXPECT_TRUE(thread.Stop(LxEvent::kInfinite)); }).join();
    EXPECT_FALSE(thread.IsRunning());
    EXPECT_EQ(cycles, 2);
    std::string kernelName; // stopped and joined, it starts again
    ASSERT_TRUE(thread.Start(
        [&](void*, LxThread*) {
            TaskFile(gettid(), "comm") >> kernelName;
            return false;
        },
        nullptr, 10));
    ASSERT_EQ(thread.GetExitedEvent().Wait(), 0);
    EXPECT_TRUE(thread.WaitForStop(0));
    EXPECT_EQ(thread.GetStopEvent().Wait(0), 0);
    EXPECT_EQ(kernelName, "ExitingAtOnceWi"); // the kernel keeps 15 bytes
    EXPECT_EQ(log.Count("Thread ExitingAtOnceWithALongName exited"), 1u);
    EXPECT_EQ(log.Count("Thread ExitingAtOnceWithALongName exited by callback"), 1u);
}

// Through pthread_exit it never reaches the end of its loop; the end-of-thread event still shows it.
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

TEST_F(LxThreadTest, DroppingTheHandleOfARunningThreadLetsItEndAfterOneLastRun)
{
    std::atomic<int> cycles{0};
    std::atomic<int> ownerlessRuns{0};
    std::atomic<pid_t> tid{0};
    LxEvent started(true, false);
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
    ASSERT_TRUE(WaitUntil([&] {
        long call = -1;
        TaskFile(tid, "syscall") >> call;
        return call == SYS_poll || call == SYS_ppoll;
    }));
    const LxEvent ended = thread->GetThreadHandleEvent();
    thread.reset();
    ASSERT_EQ(ended.Wait(), 0);
    EXPECT_EQ(cycles, 2);
    EXPECT_EQ(ownerlessRuns, 1);
    EXPECT_EQ(log.Count("Thread Orphan was deleted"), 1u);
}

class Tracked : public RCObject {
public:
    explicit Tracked(std::atomic<int>& destroyed) : m_destroyed(destroyed) {}
    ~Tracked() override { ++m_destroyed; }

private:
    std::atomic<int>& m_destroyed;
};

// Recycles itself instead of going, as a pooled message does.
class Recycled : public RCObject {
public:
    int finalReleases = 0;
    bool keep = true;

protected:
    bool OnFinalRelease() override
    {
        ++finalReleases;
        return keep;
    }
};

TEST(RCObjectTest, LastReleaseDeletesOrRecyclesAndWeakPointersSeeItGo)
{
    std::atomic<int> destroyed{0};
    RCPtr<Tracked> a = MakeRC<Tracked>(destroyed);
    WkPtr<Tracked> weak(a);
    {
        RCPtr<Tracked> b = a;
        RCPtr<RCObject> base = b; // converts without a second object
        EXPECT_EQ(a->GetRefCount(), 3);
    }
    EXPECT_EQ(a->GetRefCount(), 1);
    RCPtr<Tracked> promoted = weak.Lock();
    EXPECT_EQ(promoted.get(), a.get());
    promoted.reset();
    a.reset();
    EXPECT_EQ(destroyed, 1);
    EXPECT_FALSE(weak.IsAlive());
    EXPECT_FALSE(weak.Lock());
    auto* object = new Recycled;
    RCPtr<Recycled> first(object);
    WkPtr<Recycled> oldWeak(first);
    first.reset();
    EXPECT_EQ(object->finalReleases, 1);
    // A recycled object is a new life: the old weak pointers must not reach it.
    EXPECT_FALSE(oldWeak.Lock());
    oldWeak.reset();
    RCPtr<Recycled> second(object);
    WkPtr<Recycled> newWeak(second);
    EXPECT_TRUE(newWeak.Lock());
    object->keep = false; // the last life deletes it: under ASan a missing delete leaks, a double one crashes
}

// Promotion racing the final release is the reason counts share one lock:
// every promotion must either fail or give a live object.
TEST(WkPtrTest, PromotionRacingTheLastReleaseNeverSeesAFinalisedObject)
{
    for (int round = 0; round < 200; ++round) {
        std::atomic<int> destroyed{0};
        RCPtr<Tracked> strong = MakeRC<Tracked>(destroyed);
        WkPtr<Tracked> weak(strong);
        std::atomic<bool> go{false};
        std::atomic<int> promotedWhileDestroyed{0};
        std::vector<std::thread> promoters;
        for (int t = 0; t < 3; ++t) {
            promoters.emplace_back([&] {
                while (!go)
                    std::this_thread::yield();
                for (int i = 0; i < 50; ++i)
                    if (RCPtr<Tracked> p = weak.Lock())
                        promotedWhileDestroyed += destroyed.load();
            });
        }
        go = true;
        strong.reset();
        for (std::thread& t : promoters)
            t.join();
        EXPECT_EQ(destroyed, 1);
        EXPECT_EQ(promotedWhileDestroyed, 0);
    }
}

} // namespace
