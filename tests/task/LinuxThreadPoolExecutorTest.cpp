#include "task/LinuxThreadPoolExecutor.h"
#include "task/TaskCore.h"
#include "task/TaskTestSupport.h"

#include "common/LogCapture.h"

#include <gtest/gtest.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <atomic>
#include <future>
#include <set>
#include <thread>
#include <vector>

using namespace tolv::log;

using namespace tamsel::task;
using namespace std::chrono_literals;

namespace {

void Signal(int fd)
{
    const uint64_t one = 1;
    ASSERT_EQ(::write(fd, &one, sizeof one), static_cast<ssize_t>(sizeof one));
}

void Drain(int fd)
{
    uint64_t value;
    [[maybe_unused]] ssize_t n = ::read(fd, &value, sizeof value);
}

OwnedPointer Int(int value)
{
    return OwnedPointer([](void* p) { delete static_cast<int*>(p); }, new int(value));
}

// Lets the pool run everything already posted: a work callback that has run
// after `fd`'s event was reported shows the event was dispatched or dropped.
void RoundTrip(const std::shared_ptr<LinuxThreadPoolExecutor>& executor)
{
    Counter done;
    auto task = executor->createWorkTask([&](void*, void*) { done.add(); });
    for (int i = 0; i < 4; ++i)
        executor->submitWork(task, {}, {});
    ASSERT_TRUE(done.waitFor(4));
    executor->closeWorkTask(task);
}

class Executor : public testing::Test {
protected:
    std::shared_ptr<LinuxThreadPoolExecutor> executor = LinuxThreadPoolExecutor::create();
};

} // namespace

TEST(TimerSetting, RoundsDueUpTo100nsAndPeriodDownToMilliseconds)
{
    auto value = TimerSetting(0ns, 0ns);
    EXPECT_EQ(value.it_value.tv_sec, 0);
    EXPECT_EQ(value.it_value.tv_nsec, 1);  // at once (0 would disarm)
    EXPECT_EQ(TimerSetting(1ns, 0ns).it_value.tv_nsec, 100);
    EXPECT_EQ(TimerSetting(100ns, 0ns).it_value.tv_nsec, 100);
    EXPECT_EQ(TimerSetting(101ns, 0ns).it_value.tv_nsec, 200);
    value = TimerSetting(2500ms, 999999ns);
    EXPECT_EQ(value.it_value.tv_sec, 2);
    EXPECT_EQ(value.it_value.tv_nsec, 500000000);
    EXPECT_EQ(value.it_interval.tv_sec, 0);  // under 1 ms: one-shot
    EXPECT_EQ(value.it_interval.tv_nsec, 0);
    value = TimerSetting(1ms, 1999999ns);
    EXPECT_EQ(value.it_interval.tv_nsec, 1000000);
    value = TimerSetting(-5ns, 3s);
    EXPECT_EQ(value.it_value.tv_nsec, 1);
    EXPECT_EQ(value.it_interval.tv_sec, 3);
    const auto abs = AbsoluteTimerSetting(std::chrono::system_clock::time_point(1234567891ns));
    EXPECT_EQ(abs.it_value.tv_sec, 1);
    EXPECT_EQ(abs.it_value.tv_nsec, 234567800);
}

TEST_F(Executor, WorkItemsRunOnceEachWithTheirArguments)
{
    ASSERT_TRUE(executor);
    std::mutex lock;
    std::multiset<int> seen;
    Counter calls;
    int nulls = 0;
    auto task = executor->createWorkTask([&](void* completion, void* arguments) {
        std::lock_guard<std::mutex> guard(lock);
        if (arguments == nullptr && completion == nullptr)
            ++nulls;
        else
            seen.insert(*static_cast<int*>(arguments));
        calls.add();
    });
    constexpr int kItems = 2000;
    for (int i = 0; i < kItems; ++i)
        executor->submitWork(task, {}, Int(i));
    executor->submitWork(task, {}, {});  // nothing queued: a call with two nulls
    ASSERT_TRUE(calls.waitFor(kItems + 1));
    executor->waitForWorkCallbacks(task);
    std::lock_guard<std::mutex> guard(lock);
    EXPECT_EQ(nulls, 1);
    ASSERT_EQ(seen.size(), static_cast<size_t>(kItems));
    int expected = 0;
    for (int value : seen)
        EXPECT_EQ(value, expected++);  // each exactly once
}

TEST(ExecutorOrder, ItemsAreTakenInSubmissionOrder)
{
    // Two threads: one held at a gate, so the other runs the callbacks one at a
    // time and the order they see is the order the queue hands out.
    LinuxThreadPoolExecutor::Options options;
    options.maxThreads = 2;
    auto executor = LinuxThreadPoolExecutor::create(options);
    Gate gate;
    Counter held;
    auto blocker = executor->createWorkTask([&](void*, void*) {
        held.add();
        gate.pass();
    });
    executor->submitWork(blocker, {}, {});
    ASSERT_TRUE(held.waitFor(1));
    std::vector<int> order;
    Counter done;
    auto task = executor->createWorkTask([&](void*, void* arguments) {
        order.push_back(*static_cast<int*>(arguments));
        done.add();
    });
    for (int i = 0; i < 200; ++i)
        executor->submitWork(task, {}, Int(i));
    ASSERT_TRUE(done.waitFor(200));
    std::vector<int> expected(200);
    for (int i = 0; i < 200; ++i)
        expected[i] = i;
    EXPECT_EQ(order, expected);
    gate.open();
    executor->waitForWorkCallbacks(blocker);
}

TEST(ExecutorPool, AnIdleThreadNeverRetiresWhileItIsTheLastOneWaiting)
{
    // A callback that waits for another task's callback: the pool must keep a
    // thread for that one, however long the first blocks.
    LinuxThreadPoolExecutor::Options options;
    options.minThreads = 1;
    options.idleTimeout = 20ms;
    auto executor = LinuxThreadPoolExecutor::create(options);
    const int fd = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    Counter waited, blocked;
    auto wait = executor->createWaitTask(fd, [&] {
        Drain(fd);
        waited.add();
    });
    executor->armWait(wait);
    auto work = executor->createWorkTask([&](void*, void*) {
        blocked.add();
        waited.waitFor(1);
    });
    executor->submitWork(work, {}, {});
    ASSERT_TRUE(blocked.waitFor(1));
    std::this_thread::sleep_for(200ms);  // ten idle time-outs: spare threads retire meanwhile
    Signal(fd);
    EXPECT_TRUE(waited.waitFor(1));
    executor->waitForWorkCallbacks(work);
    executor->closeWaitTask(wait);
    ::close(fd);
}

TEST(ExecutorClose, ClosingFromInsideWaitsForTheTaskOtherCallbacks)
{
    auto executor = LinuxThreadPoolExecutor::create();
    Gate gate;
    Counter started;
    std::atomic<bool> otherFinished{false};
    std::atomic<bool> sawOtherFinished{false};
    std::shared_ptr<WtpWorkTaskContext> task;
    task = executor->createWorkTask([&](void*, void* arguments) {
        if (arguments == nullptr) {  // the other callback: runs until the gate opens
            started.add();
            gate.pass();
            otherFinished = true;
            return;
        }
        gate.open();
        executor->closeWorkTask(task);  // returns only after the other callback
        sawOtherFinished = otherFinished.load();
        started.add();
    });
    executor->submitWork(task, {}, {});
    ASSERT_TRUE(started.waitFor(1));
    executor->submitWork(task, {}, Int(1));
    ASSERT_TRUE(started.waitFor(2));
    EXPECT_TRUE(sawOtherFinished);
}

TEST(ExecutorClose, ItemsOfAClosedWorkTaskAreReleasedNotRun)
{
    // Two threads at most: both blocked below, so further items stay queued.
    LinuxThreadPoolExecutor::Options options;
    options.maxThreads = 2;
    auto executor = LinuxThreadPoolExecutor::create(options);
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
    // The close waits for the running callbacks; the queued items are released unrun.
    EXPECT_EQ(closing.wait_for(100ms), std::future_status::timeout);
    gate.open();
    closing.get();
    executor->submitWork(task, {}, counted());  // after the close: released at once
    EXPECT_EQ(ran, 2);
    EXPECT_EQ(released, 7);
}

TEST_F(Executor, WaitFiresOncePerArming)
{
    const int fd = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    ASSERT_GE(fd, 0);
    Counter fired;
    auto task = executor->createWaitTask(fd, [&] {
        Drain(fd);
        fired.add();
    });
    ASSERT_TRUE(task);
    executor->armWait(task);
    executor->armWait(task);  // registered once
    Signal(fd);
    ASSERT_TRUE(fired.waitFor(1));
    Signal(fd);  // not armed: nothing
    RoundTrip(executor);
    EXPECT_EQ(fired.value(), 1);
    executor->armWait(task);  // the pending signal is seen now
    ASSERT_TRUE(fired.waitFor(2));
    RoundTrip(executor);
    EXPECT_EQ(fired.value(), 2);

    // A signal after the disarm does not call back; disarming twice is harmless.
    executor->armWait(task);
    executor->disarmWait(task);
    executor->disarmWait(task);
    Signal(fd);
    RoundTrip(executor);
    executor->waitForWaitCallbacks(task);
    EXPECT_EQ(fired.value(), 2);
    executor->closeWaitTask(task);
    ::close(fd);
}

TEST_F(Executor, DisarmRacingASignalNeverCallsBackMoreThanArmed)
{
    const int fd = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    std::atomic<int> fired{0};
    auto task = executor->createWaitTask(fd, [&] {
        Drain(fd);
        ++fired;
    });
    int armings = 0;
    for (int i = 0; i < 500; ++i) {
        executor->armWait(task);
        ++armings;
        std::thread signaller([&] { Signal(fd); });
        executor->disarmWait(task);
        signaller.join();
        executor->waitForWaitCallbacks(task);
        Drain(fd);
        const int before = fired;
        // Disarmed now: whatever the race did, no later callback may come.
        RoundTrip(executor);
        EXPECT_EQ(fired, before);
    }
    EXPECT_LE(fired, armings);
    executor->closeWaitTask(task);
    ::close(fd);
}

TEST_F(Executor, TimersFireOnceOrPeriodically)
{
    Counter once, periodic, sentinel;
    auto oneShot = executor->createTimerTask([&] { once.add(); });
    auto repeat = executor->createTimerTask([&] { periodic.add(); });
    auto marker = executor->createTimerTask([&] { sentinel.add(); });
    ASSERT_TRUE(oneShot && repeat && marker);

    executor->setTimer(oneShot, 0ns, 999us);  // at once; a period under 1 ms is none
    ASSERT_TRUE(once.waitFor(1));
    executor->setTimer(repeat, 1ms, 1ms);
    ASSERT_TRUE(periodic.waitFor(5));
    executor->cancelTimer(repeat);
    executor->waitForTimerCallbacks(repeat);
    const int afterCancel = periodic.value();

    executor->setTimer(marker, 50ms, 0ns);
    ASSERT_TRUE(sentinel.waitFor(1));
    EXPECT_EQ(once.value(), 1);
    EXPECT_LE(periodic.value(), afterCancel + 1);  // at most one expiry already under way

    // Absolute: a time in the past fires at once, one in the near future fires.
    executor->setTimerAbsolute(oneShot, std::chrono::system_clock::now() - 1h);
    ASSERT_TRUE(once.waitFor(2));
    executor->setTimerAbsolute(oneShot, std::chrono::system_clock::now() + 20ms);
    ASSERT_TRUE(once.waitFor(3));
}

TEST_F(Executor, ClosingFromInsideItsOwnCallbackReturnsAtOnce)
{
    Counter done;
    std::shared_ptr<WtpTimerTaskContext> timer;
    auto state = std::make_shared<std::string>("still here");
    timer = executor->createTimerTask([&, state] {
        executor->closeTimerTask(timer);
        // The callback's own state outlives the close.
        EXPECT_EQ(*state, "still here");
        done.add();
    });
    state.reset();
    executor->setTimer(timer, 0ns, 0ns);
    ASSERT_TRUE(done.waitFor(1));

    std::shared_ptr<WtpWorkTaskContext> work;
    work = executor->createWorkTask([&](void*, void*) {
        executor->waitForWorkCallbacks(work);  // does not wait for itself
        executor->closeWorkTask(work);
        work.reset();  // even the last handle may go from inside
        done.add();
    });
    executor->submitWork(work, {}, {});
    ASSERT_TRUE(done.waitFor(2));
    RoundTrip(executor);
    executor->waitForTimerCallbacks(timer);
    EXPECT_EQ(done.value(), 2);
}

TEST_F(Executor, ClosingFromAnotherThreadWaitsForRunningCallbacks)
{
    Gate gate;
    Counter started;
    std::atomic<bool> finished{false};
    auto timer = executor->createTimerTask([&] {
        started.add();
        gate.pass();
        finished = true;
    });
    executor->setTimer(timer, 0ns, 0ns);
    ASSERT_TRUE(started.waitFor(1));
    auto closing = std::async(std::launch::async, [&] { executor->closeTimerTask(timer); });
    EXPECT_EQ(closing.wait_for(100ms), std::future_status::timeout);
    gate.open();
    closing.get();
    EXPECT_TRUE(finished);
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
    task.reset();  // the last handle: the destructor can finish
    destroying.get();

    // Tasks nobody holds any more are closed by the destructor itself.
    executor = LinuxThreadPoolExecutor::create();
    executor->createTimerTask([] {});
    executor->createWorkTask([](void*, void*) {});
    executor.reset();
}

TEST(ExecutorPool, GrowsWhenCallbacksBlockAndStaysWithinItsBound)
{
    LinuxThreadPoolExecutor::Options options;
    options.minThreads = 1;
    options.maxThreads = 6;
    options.idleTimeout = 50ms;
    auto executor = LinuxThreadPoolExecutor::create(options);
    Gate gate;
    Counter running;
    auto task = executor->createWorkTask([&](void*, void*) {
        running.add();
        gate.pass();
    });
    // Five callbacks that block at once can only all start if the pool grows.
    for (int i = 0; i < 5; ++i)
        executor->submitWork(task, {}, {});
    ASSERT_TRUE(running.waitFor(5));
    // Past the bound, further work waits for a thread instead of growing the pool.
    for (int i = 0; i < 5; ++i)
        executor->submitWork(task, {}, {});
    ASSERT_TRUE(running.waitFor(6));
    EXPECT_LE(executor->peakThreadCount(), 6u);
    gate.open();
    ASSERT_TRUE(running.waitFor(10));
    executor->waitForWorkCallbacks(task);
    // Idle threads retire, down to the minimum.
    const auto deadline = std::chrono::steady_clock::now() + kTestDeadline;
    while (executor->threadCount() > 1 && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(10ms);
    EXPECT_EQ(executor->threadCount(), 1u);
    executor->closeWorkTask(task);
}

TEST_F(Executor, ExceptionsFromCallbacksAreLoggedAndContained)
{
    ScopedLogCapture log(LOG_LEVEL_ERROR);
    Counter done;
    auto task = executor->createWorkTask([&](void*, void* arguments) {
        done.add();
        if (arguments)
            throw std::runtime_error("bad input");
    });
    executor->submitWork(task, {}, Int(1));
    executor->submitWork(task, {}, {});
    ASSERT_TRUE(done.waitFor(2));
    executor->waitForWorkCallbacks(task);
    EXPECT_EQ(log.Count("A task callback raised an exception: bad input"), 1u);
    auto empty = executor->createTimerTask(nullptr);  // an empty callable is a contained bad_function_call
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
                const int fd = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
                auto wait = executor->createWaitTask(fd, [&, fd] {
                    Drain(fd);
                    ++calls;
                });
                auto timer = executor->createTimerTask([&] { ++calls; });
                auto work = executor->createWorkTask([&](void*, void*) { ++calls; });
                executor->armWait(wait);
                executor->setTimer(timer, 0ns, 1ms);
                for (int i = 0; i < 3; ++i)
                    executor->submitWork(work, {}, Int(i));
                Signal(fd);
                if (round % 2 == 0)
                    std::this_thread::yield();
                executor->closeWaitTask(wait);
                executor->closeTimerTask(timer);
                if (round % 3 != 0)
                    executor->closeWorkTask(work);  // the rest are left to the destructor
                ::close(fd);
            }
        });
    }
    for (auto& thread : threads)
        thread.join();
    executor.reset();
    EXPECT_GT(calls.load(), 0);
}
