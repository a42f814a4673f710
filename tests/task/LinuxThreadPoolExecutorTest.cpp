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
#include <numeric>
#include <thread>
#include <vector>

using namespace tamsel::task;
using namespace std::chrono_literals;

namespace {

// An eventfd a wait task watches.
struct EventFd {
    const int fd = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    ~EventFd() { ::close(fd); }
    void Signal() const
    {
        const uint64_t one = 1;
        EXPECT_EQ(::write(fd, &one, sizeof one), static_cast<ssize_t>(sizeof one));
    }
    void Drain() const
    {
        uint64_t value;
        [[maybe_unused]] ssize_t n = ::read(fd, &value, sizeof value);
    }
};

OwnedPointer Int(int value)
{
    return OwnedPointer([](void* p) { delete static_cast<int*>(p); }, new int(value));
}

// Lets the pool run everything already posted: a work callback that has run
// after an event was reported shows the event was dispatched or dropped.
void RoundTrip(const std::shared_ptr<LinuxThreadPoolExecutor>& executor)
{
    Counter done;
    auto task = executor->createWorkTask([&](void*, void*) { done.add(); });
    for (int i = 0; i < 4; ++i)
        executor->submitWork(task, {}, {});
    ASSERT_TRUE(done.waitFor(4));
    executor->closeWorkTask(task);
}

// A work task whose callbacks count their start and then block at `gate`.
std::shared_ptr<WtpWorkTaskContext> Blocking(LinuxThreadPoolExecutor& executor, Counter& started, Gate& gate)
{
    return executor.createWorkTask([&](void*, void*) {
        started.add();
        gate.pass();
    });
}

class Executor : public testing::Test {
protected:
    std::shared_ptr<LinuxThreadPoolExecutor> executor = LinuxThreadPoolExecutor::create();
    Gate gate;
    Counter started;
};

} // namespace

TEST(ExecutorOrder, ItemsRunOnceEachInSubmissionOrderWithTheirArguments)
{
    // Two threads: one held at a gate, so the other runs the callbacks one at a
    // time and the order they see is the order the queue hands out.
    auto executor = LinuxThreadPoolExecutor::create({.maxThreads = 2});
    Gate gate;
    Counter held, done;
    auto blocker = Blocking(*executor, held, gate);
    executor->submitWork(blocker, {}, {});
    ASSERT_TRUE(held.waitFor(1));
    std::vector<int> order;
    auto task = executor->createWorkTask([&](void* completion, void* arguments) {
        order.push_back(arguments || completion ? *static_cast<int*>(arguments) : -1);
        done.add();
    });
    std::vector<int> expected(500);
    std::iota(expected.begin(), expected.end(), 0);
    for (int i : expected)
        executor->submitWork(task, {}, Int(i));
    executor->submitWork(task, {}, {}); // nothing queued: a call with two nulls
    expected.push_back(-1);
    ASSERT_TRUE(done.waitFor(501));
    EXPECT_EQ(order, expected);
    gate.open();
    executor->waitForWorkCallbacks(blocker);
}

TEST(ExecutorPool, AnIdleThreadNeverRetiresWhileItIsTheLastOneWaiting)
{
    // A callback that waits for another task's callback: the pool must keep a
    // thread for that one, however long the first blocks.
    auto executor = LinuxThreadPoolExecutor::create({.minThreads = 1, .idleTimeout = 20ms});
    EventFd event;
    Counter waited, blocked;
    auto wait = executor->createWaitTask(event.fd, [&] {
        event.Drain();
        waited.add();
    });
    executor->armWait(wait);
    auto work = executor->createWorkTask([&](void*, void*) {
        blocked.add();
        waited.waitFor(1);
    });
    executor->submitWork(work, {}, {});
    ASSERT_TRUE(blocked.waitFor(1));
    std::this_thread::sleep_for(200ms); // ten idle time-outs: spare threads retire meanwhile
    event.Signal();
    EXPECT_TRUE(waited.waitFor(1));
    executor->waitForWorkCallbacks(work);
    executor->closeWaitTask(wait);
}

// Closing from another thread waits for the running callbacks; queued work
// items are released unrun, and so are those submitted after the close.
TEST(ExecutorClose, ClosingWaitsForRunningCallbacksAndReleasesQueuedItems)
{
    // Two threads at most: both blocked below, so further items stay queued.
    auto executor = LinuxThreadPoolExecutor::create({.maxThreads = 2});
    Gate gate;
    Counter started;
    std::atomic<int> ran{0};
    auto task = executor->createWorkTask([&](void*, void*) {
        started.add();
        gate.pass();
        ++ran;
    });
    static std::atomic<int> released{0};
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

TEST_F(Executor, WaitFiresOncePerArmingAndNotAfterADisarm)
{
    EventFd event;
    Counter fired;
    auto task = executor->createWaitTask(event.fd, [&] {
        event.Drain();
        fired.add();
    });
    executor->armWait(task);
    executor->armWait(task); // registered once
    event.Signal();
    ASSERT_TRUE(fired.waitFor(1));
    event.Signal(); // not armed: nothing
    RoundTrip(executor);
    EXPECT_EQ(fired.value(), 1);
    executor->armWait(task); // the pending signal is seen now
    ASSERT_TRUE(fired.waitFor(2));
    // A signal after the disarm does not call back; disarming twice is harmless.
    executor->armWait(task);
    executor->disarmWait(task);
    executor->disarmWait(task);
    event.Signal();
    RoundTrip(executor);
    executor->waitForWaitCallbacks(task);
    EXPECT_EQ(fired.value(), 2);
    executor->closeWaitTask(task);
}

TEST_F(Executor, DisarmRacingASignalNeverCallsBackMoreThanArmed)
{
    EventFd event;
    std::atomic<int> fired{0};
    auto task = executor->createWaitTask(event.fd, [&] {
        event.Drain();
        ++fired;
    });
    for (int i = 0; i < 500; ++i) {
        executor->armWait(task);
        std::thread signaller([&] { event.Signal(); });
        executor->disarmWait(task);
        signaller.join();
        executor->waitForWaitCallbacks(task);
        event.Drain();
        const int before = fired;
        RoundTrip(executor); // disarmed now: whatever the race did, no later callback may come
        EXPECT_EQ(fired, before);
        EXPECT_LE(fired, i + 1);
    }
    executor->closeWaitTask(task);
}

TEST_F(Executor, TimersFireOnceOrPeriodically)
{
    Counter once, periodic, sentinel;
    auto oneShot = executor->createTimerTask([&] { once.add(); });
    auto repeat = executor->createTimerTask([&] { periodic.add(); });
    auto marker = executor->createTimerTask([&] { sentinel.add(); });
    executor->setTimer(oneShot, 0ns, 999us); // at once; a period under 1 ms is none
    ASSERT_TRUE(once.waitFor(1));
    executor->setTimer(repeat, 1ms, 1ms);
    ASSERT_TRUE(periodic.waitFor(5));
    executor->cancelTimer(repeat);
    executor->waitForTimerCallbacks(repeat);
    const int afterCancel = periodic.value();
    executor->setTimer(marker, 50ms, 0ns);
    ASSERT_TRUE(sentinel.waitFor(1));
    EXPECT_EQ(once.value(), 1);
    EXPECT_LE(periodic.value(), afterCancel + 1); // at most one expiry already under way
    // Absolute: a time in the past fires at once, one in the near future fires.
    executor->setTimerAbsolute(oneShot, std::chrono::system_clock::now() - 1h);
    ASSERT_TRUE(once.waitFor(2));
    executor->setTimerAbsolute(oneShot, std::chrono::system_clock::now() + 20ms);
    ASSERT_TRUE(once.waitFor(3));
}

// A callback that closes its own task waits for the task's other callbacks,
// never for itself; its own state and even the last handle may go meanwhile.
TEST_F(Executor, ClosingFromInsideWaitsForTheOtherCallbacksOnly)
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
    std::shared_ptr<WtpTimerTaskContext> timer;
    auto state = std::make_shared<std::string>("still here");
    timer = executor->createTimerTask([&, state] {
        executor->closeTimerTask(timer);
        EXPECT_EQ(*state, "still here");
        started.add();
    });
    state.reset();
    executor->setTimer(timer, 0ns, 0ns);
    ASSERT_TRUE(started.waitFor(3));
    RoundTrip(executor);
    executor->waitForTimerCallbacks(timer);
    EXPECT_EQ(started.value(), 3);
}

TEST(ExecutorLifetime, DestructionWaitsForHandlesStillHeld)
{
    auto executor = LinuxThreadPoolExecutor::create();
    Counter fired;
    auto task = executor->createWorkTask([&](void*, void*) { fired.add(); });
    executor->submitWork(task, {}, {});
    ASSERT_TRUE(fired.waitFor(1));
    auto destroying = std::async(std::launch::async, [&] { executor.reset(); });
    EXPECT_EQ(destroying.wait_for(100ms), std::future_status::timeout);
    task.reset(); // the last handle: the destructor can finish
    destroying.get();
    // Tasks nobody holds any more are closed by the destructor itself.
    executor = LinuxThreadPoolExecutor::create();
    executor->createTimerTask([] {});
    executor->createWorkTask([](void*, void*) {});
    executor.reset();
}

TEST(ExecutorPool, GrowsWhenCallbacksBlockAndStaysWithinItsBound)
{
    auto executor = LinuxThreadPoolExecutor::create({.minThreads = 1, .maxThreads = 6, .idleTimeout = 50ms});
    Gate gate;
    Counter running;
    auto task = Blocking(*executor, running, gate);
    // Callbacks that block at once can only all start if the pool grows; past
    // the bound, further work waits for a thread instead of growing it.
    for (int i = 0; i < 10; ++i)
        executor->submitWork(task, {}, {});
    ASSERT_TRUE(running.waitFor(6));
    EXPECT_LE(executor->peakThreadCount(), 6u);
    gate.open();
    ASSERT_TRUE(running.waitFor(10));
    executor->waitForWorkCallbacks(task);
    // Idle threads retire, down to the minimum.
    EXPECT_TRUE(WaitUntil([&] { return executor->threadCount() == 1; }));
    executor->closeWorkTask(task);
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
    RoundTrip(executor);
    executor->waitForTimerCallbacks(empty);
}

TEST(ExecutorStress, ManyTasksCreatedFiredAndClosedFromSeveralThreads)
{
    auto executor = LinuxThreadPoolExecutor::create();
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
    std::string joined;
    auto task = CreateWorkTask<void(std::string, int)>(executor, [&](const std::string& text, int n) {
        if (n < 0)
            throw std::invalid_argument("negative");
        joined += text + std::to_string(n);
    });
    ASSERT_TRUE(task);
    task.submitAndWait("a", 1);
    task.submitAndWait("b", 2);
    EXPECT_EQ(joined, "a1b2");
    EXPECT_THROW(task.submitAndWait("c", -1), std::invalid_argument);
    // Fire and forget: the arguments travel owned by the queue.
    Counter done;
    auto counting = CreateWorkTask<void(std::shared_ptr<int>)>(executor, [&](std::shared_ptr<int> p) {
        *p += 1;
        done.add();
    });
    auto value = std::make_shared<int>(41);
    counting.submit(value);
    ASSERT_TRUE(done.waitFor(1));
    executor->waitForWorkCallbacks(counting.context());
    EXPECT_EQ(*value, 42);
    EXPECT_EQ(value.use_count(), 1); // the packed copy is gone
    task.close();
    counting.close();
    ScopedLogCapture quiet(LOG_LEVEL_ALWAYS);
    auto none = CreateWorkTask<void()>(executor, [&] { done.add(); });
    executor->submitWork(none.context(), {}, {}); // no arguments at all still calls fn
    ASSERT_TRUE(done.waitFor(2));
}
