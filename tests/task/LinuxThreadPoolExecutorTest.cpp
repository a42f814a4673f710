#include "task/LinuxThreadPoolExecutor.h"
#include "task/TaskTestSupport.h"
#include <tamsel/task/WorkTask.h>

#include "common/LogCapture.h"
#include "common/ProcessProbe.h"

#include <gtest/gtest.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <atomic>
#include <future>

using namespace tamsel::task;
using namespace std::chrono_literals;

namespace {

// An eventfd for a wait task to watch.
struct EventFd {
    const int fd = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    ~EventFd() { ::close(fd); }
    void Signal() const { EXPECT_EQ(::eventfd_write(fd, 1), 0); }
    void Drain() const
    {
        eventfd_t value;
        (void)::eventfd_read(fd, &value);
    }
};

OwnedPointer Int(int value)
{
    return OwnedPointer([](void* p) { delete static_cast<int*>(p); }, new int(value));
}

class Executor : public testing::Test {
protected:
    // Lets the pool run everything already posted: a work callback that has run
    // after an event was reported shows the event was dispatched or dropped.
    void RoundTrip()
    {
        Counter done;
        auto task = executor->createWorkTask([&](void*, void*) { done.add(); });
        for (int i = 0; i < 4; ++i)
            executor->submitWork(task, {}, {});
        ASSERT_TRUE(done.waitFor(4));
        executor->closeWorkTask(task);
    }
    // A work task whose callbacks count their start and then wait at the gate.
    std::shared_ptr<WtpWorkTaskContext> Blocking()
    {
        return executor->createWorkTask([this](void*, void*) {
            started.add();
            gate.pass();
        });
    }
    void Recreate(LinuxThreadPoolExecutor::Options o) { executor = LinuxThreadPoolExecutor::create(o); }

    Gate gate;
    Counter started;
    std::shared_ptr<LinuxThreadPoolExecutor> executor = LinuxThreadPoolExecutor::create(); // goes first
};
using ExecutorPool = Executor;
using ExecutorClose = Executor;
using ExecutorLifetime = Executor;
using ExecutorStress = Executor;

} // namespace

// A callback that waits for another task's callback: the pool must keep a
// thread for that one, however long the first blocks.
TEST_F(ExecutorPool, AnIdleThreadNeverRetiresWhileItIsTheLastOneWaiting)
{
    Recreate({.minThreads = 1, .idleTimeout = 20ms});
    EventFd event;
    Counter waited;
    auto wait = executor->createWaitTask(event.fd, [&] {
        event.Drain();
        waited.add();
    });
    executor->armWait(wait);
    auto work = executor->createWorkTask([&](void*, void*) {
        started.add();
        waited.waitFor(1);
    });
    executor->submitWork(work, {}, {});
    ASSERT_TRUE(started.waitFor(1));
    std::this_thread::sleep_for(200ms); // ten idle time-outs: spare threads retire meanwhile
    event.Signal();
    EXPECT_TRUE(waited.waitFor(1));
    executor->waitForWorkCallbacks(work);
    executor->closeWaitTask(wait);
}

TEST_F(ExecutorPool, GrowsWhenCallbacksBlockAndStaysWithinItsBound)
{
    Recreate({.minThreads = 1, .maxThreads = 6, .idleTimeout = 50ms});
    auto task = Blocking();
    for (int i = 0; i < 10; ++i)
        executor->submitWork(task, {}, {});
    ASSERT_TRUE(started.waitFor(6)); // only if the pool grows; past its bound work waits for a thread
    EXPECT_LE(executor->peakThreadCount(), 6u);
    gate.open();
    ASSERT_TRUE(started.waitFor(10));
    executor->waitForWorkCallbacks(task);
    EXPECT_TRUE(WaitUntil([&] { return executor->threadCount() == 1; })); // idle ones retire
}

TEST_F(ExecutorClose, ClosingWaitsForRunningCallbacksAndReleasesQueuedItems)
{
    Recreate({.maxThreads = 2}); // both blocked below, so further items stay queued
    std::atomic<int> ran{0};
    auto task = executor->createWorkTask([&](void*, void*) {
        started.add();
        gate.pass();
        ++ran;
    });
    static std::atomic<int> released;
    released = 0;
    auto counted = [] { return OwnedPointer([](void*) { ++released; }, reinterpret_cast<void*>(1)); };
    executor->submitWork(task, {}, counted());
    executor->submitWork(task, {}, counted());
    ASSERT_TRUE(started.waitFor(2));
    for (int i = 0; i < 4; ++i)
        executor->submitWork(task, {}, counted());
    auto closing = std::async(std::launch::async, [&] { executor->closeWorkTask(task); });
    EXPECT_EQ(closing.wait_for(100ms), std::future_status::timeout);
    gate.open();
    closing.get();
    executor->submitWork(task, {}, counted());
    EXPECT_EQ(ran, 2);
    EXPECT_EQ(released, 7);
}

TEST_F(ExecutorClose, ClosingFromInsideWaitsForTheOtherCallbacksOnly)
{
    std::atomic<bool> otherFinished{false}, sawOtherFinished{false};
    std::shared_ptr<WtpWorkTaskContext> work;
    work = executor->createWorkTask([&](void*, void* arguments) {
        if (arguments == nullptr) { // the other callback: runs until the gate opens
            started.add();
            gate.pass();
            otherFinished = true;
            return;
        }
        gate.open();
        executor->waitForWorkCallbacks(work);
        executor->closeWorkTask(work); // returns only after the other callback
        sawOtherFinished = otherFinished.load();
        work.reset();
        started.add();
    });
    executor->submitWork(work, {}, {});
    ASSERT_TRUE(started.waitFor(1));
    executor->submitWork(work, {}, Int(1));
    ASSERT_TRUE(started.waitFor(2));
    EXPECT_TRUE(sawOtherFinished);
}

TEST_F(Executor, WaitFiresOncePerArmingAndNotAfterADisarm)
{
    EventFd event;
    std::atomic<int> fired{0};
    auto task = executor->createWaitTask(event.fd, [&] {
        event.Drain();
        ++fired;
        started.add();
    });
    executor->armWait(task);
    executor->armWait(task); // registered once
    event.Signal();
    ASSERT_TRUE(started.waitFor(1));
    event.Signal(); // not armed: nothing
    RoundTrip();
    EXPECT_EQ(fired, 1);
    executor->armWait(task); // the pending signal is seen now
    ASSERT_TRUE(started.waitFor(2));
    for (int i = 0; i < 500; ++i) {
        const int before = fired;
        executor->armWait(task);
        std::thread signaller([&] { event.Signal(); });
        executor->disarmWait(task);
        executor->disarmWait(task); // twice is harmless
        signaller.join();
        executor->waitForWaitCallbacks(task);
        const int settled = fired;
        event.Drain();
        RoundTrip(); // disarmed now: whatever the race did, no later callback may come
        EXPECT_EQ(fired, settled);
        EXPECT_LE(fired, before + 1);
    }
    executor->closeWaitTask(task);
}

TEST_F(Executor, TimersFireOnceOrPeriodicallyUntilCancelled)
{
    Counter once, periodic;
    auto oneShot = executor->createTimerTask([&] { once.add(); });
    auto repeat = executor->createTimerTask([&] { periodic.add(); });
    executor->setTimer(oneShot, 0ns, 999us); // at once; a period under 1 ms is none
    executor->setTimer(repeat, 1ms, 1ms);
    ASSERT_TRUE(periodic.waitFor(5));
    executor->cancelTimer(repeat);
    executor->waitForTimerCallbacks(repeat);
    const int afterCancel = periodic.value();
    executor->setTimerAbsolute(oneShot, std::chrono::system_clock::now() + 50ms);
    ASSERT_TRUE(once.waitFor(2));
    EXPECT_EQ(once.value(), 2);
    EXPECT_LE(periodic.value(), afterCancel + 1); // at most one expiry already under way
}

TEST_F(Executor, ExceptionsFromCallbacksAreLoggedAndContained)
{
    ScopedLogCapture log(LOG_LEVEL_ERROR);
    auto task = executor->createWorkTask([&](void*, void* arguments) {
        started.add();
        if (arguments)
            throw std::runtime_error("bad input");
    });
    executor->submitWork(task, {}, Int(1));
    executor->submitWork(task, {}, {});
    ASSERT_TRUE(started.waitFor(2));
    executor->waitForWorkCallbacks(task);
    EXPECT_EQ(log.Count("A task callback raised an exception: bad input"), 1u);
    auto empty = executor->createTimerTask(nullptr); // an empty callable is a contained bad_function_call
    executor->setTimer(empty, 0ns, 0ns);
    RoundTrip();
    executor->waitForTimerCallbacks(empty);
}

TEST_F(ExecutorLifetime, DestructionWaitsForHandlesStillHeld)
{
    auto task = Blocking();
    gate.open();
    executor->submitWork(task, {}, {});
    ASSERT_TRUE(started.waitFor(1));
    executor->createTimerTask([] {});
    executor->createWorkTask([](void*, void*) {});
    auto destroying = std::async(std::launch::async, [&] { executor.reset(); });
    EXPECT_EQ(destroying.wait_for(100ms), std::future_status::timeout);
    task.reset(); // the last handle: the destructor can finish
    destroying.get();
}

TEST_F(ExecutorStress, ManyTasksCreatedFiredAndClosedFromSeveralThreads)
{
    std::atomic<long> calls{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&] {
            for (int round = 0; round < 150; ++round) {
                EventFd event;
                auto wait = executor->createWaitTask(event.fd, [&] {
                    event.Drain();
                    ++calls;
                });
                auto timer = executor->createTimerTask([&] { ++calls; });
                auto work = executor->createWorkTask([&](void*, void*) { ++calls; });
                executor->armWait(wait);
                executor->setTimer(timer, 0ns, 1ms);
                for (int i = 0; i < 3; ++i)
                    executor->submitWork(work, {}, Int(i));
                event.Signal();
                if (round % 2 == 0)
                    std::this_thread::yield();
                executor->closeWaitTask(wait);
                executor->closeTimerTask(timer);
                if (round % 3 != 0)
                    executor->closeWorkTask(work); // the rest are left to the destructor
            }
        });
    }
    for (auto& thread : threads)
        thread.join();
    executor.reset();
    EXPECT_GT(calls.load(), 0);
}

TEST(WorkTask, CallsWithTheSubmittedArgumentsAndPropagatesFailures)
{
    std::shared_ptr<WorkTaskExecutor> executor = LinuxThreadPoolExecutor::create();
    Counter done;
    auto task = CreateWorkTask<void(std::shared_ptr<int>, int)>(executor, [&](std::shared_ptr<int> p, int n) {
        if (n < 0)
            throw std::invalid_argument("negative");
        *p += n;
        done.add();
    });
    auto value = std::make_shared<int>(40);
    task.submitAndWait(value, 1);
    EXPECT_THROW(task.submitAndWait(value, -1), std::invalid_argument);
    task.submit(value, 1);
    ASSERT_TRUE(done.waitFor(2));
    executor->waitForWorkCallbacks(task.context());
    EXPECT_EQ(*value, 42);
    EXPECT_EQ(value.use_count(), 1); // the packed copies are gone
    ScopedLogCapture quiet(LOG_LEVEL_ALWAYS);
    auto none = CreateWorkTask<void()>(executor, [&] { done.add(); });
    executor->submitWork(none.context(), {}, {});
    ASSERT_TRUE(done.waitFor(3));
}
