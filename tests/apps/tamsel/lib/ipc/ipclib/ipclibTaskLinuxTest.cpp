// The library's executor: what uninit waits for, and what it does not.

#include "apps/tamsel/lib/ipc/ipclib/ipclibTaskLinux.h"

#include "task/LinuxThreadPoolExecutor.h"
#include "task/TaskTestSupport.h"
#include <tamsel/task/WorkTask.h>

#include <gtest/gtest.h>

#include <system_error>
#include <thread>

using namespace tamsel::ipc;

TEST(KxIpclibTask, UninitDrainsOutsideTheLockEveryTaskAndClosesItWhileALinkStillHoldsTheExecutor)
{
    auto holder = KxIpclibTask::create();
    EXPECT_FALSE(holder->executor());
    ASSERT_EQ(holder->init(), KxIpcStatusSuccess);
    auto held = holder->executor();  // what a link that outlives uninit keeps

    // One callback runs and blocks, a second waits behind it; a timer keeps firing.
    std::mutex libraryLock;
    std::unique_lock<std::mutex> lock(libraryLock);
    Gate gate;
    Counter started, finished, ticks;
    auto work = held->createWorkTask([&](void*, void*) {
        started.add();
        gate.pass();
        finished.add();
    });
    auto timer = held->createTimerTask([&] { ticks.add(); });
    ASSERT_TRUE(work && timer);
    held->setTimer(timer, std::chrono::milliseconds(1), std::chrono::milliseconds(1));
    held->submitWork(work, {}, {});
    held->submitWork(work, {}, {});
    ASSERT_TRUE(started.waitFor(1));
    ASSERT_TRUE(ticks.waitFor(1));
    // The blocked callback goes on only once uninit waits without the lock.
    std::thread opener([&] {
        { std::lock_guard<std::mutex> guard(libraryLock); }
        gate.open();
    });
    holder->uninit(lock);
    const int finishedAtReturn = finished.value();
    EXPECT_TRUE(lock.owns_lock());
    lock.unlock();  // an uninit that returned early leaves the opener waiting for it
    opener.join();
    EXPECT_FALSE(holder->executor());
    // Both submits ran before uninit returned; nothing is left and no new task is taken.
    EXPECT_EQ(finishedAtReturn, 2);
    EXPECT_EQ(dynamic_cast<tamsel::task::LinuxThreadPoolExecutor&>(*held).openTaskCount(), 0u);
    EXPECT_FALSE(held->createWorkTask([](void*, void*) {}));
    EXPECT_FALSE(held->createTimerTask([] {}));
    held->submitWork(work, {}, {});  // to a closed task: dropped
    EXPECT_EQ(started.value(), 2);
    work.reset();
    timer.reset();
    held.reset();  // the last holder ends the executor here

    // init again after uninit; an uninit without the lock tears nothing down.
    ASSERT_EQ(holder->init(), KxIpcStatusSuccess);
    EXPECT_THROW(holder->uninit(lock), std::system_error);
    EXPECT_TRUE(holder->executor());
    lock.lock();
    holder->uninit(lock);
}

TEST(KxIpclibTask, UninitFromOneOfTheExecutorsOwnCallbacksDoesNotWaitForThatCallback)
{
    auto holder = KxIpclibTask::create();
    ASSERT_EQ(holder->init(), KxIpcStatusSuccess);
    auto executor = holder->executor();
    std::mutex libraryLock;
    Gate gate;
    Counter otherStarted, otherFinished, uninitLocked, uninitReturned;
    int otherFinishedAtReturn = -1;
    bool lockHeldAtReturn = false;
    auto other = executor->createWorkTask([&](void*, void*) {
        otherStarted.add();
        gate.pass();
        otherFinished.add();
    });
    auto self = executor->createWorkTask([&](void*, void*) {
        std::unique_lock<std::mutex> lock(libraryLock);
        uninitLocked.add();
        holder->uninit(lock);
        otherFinishedAtReturn = otherFinished.value();
        lockHeldAtReturn = lock.owns_lock();
        if (lock.owns_lock())
            lock.unlock();  // the test's locals go once it learns that uninit returned
        uninitReturned.add();
    });
    ASSERT_TRUE(other && self);
    executor->submitWork(other, {}, {});
    ASSERT_TRUE(otherStarted.waitFor(1));
    executor->submitWork(self, {}, {});
    executor.reset();  // the library's reference is the only one left
    ASSERT_TRUE(uninitLocked.waitFor(1));
    { std::lock_guard<std::mutex> guard(libraryLock); }  // uninit is waiting now
    gate.open();
    ASSERT_TRUE(uninitReturned.waitFor(1)) << "uninit waited for the callback it was called from";
    EXPECT_EQ(otherFinishedAtReturn, 1) << "the other task's callback was not waited for";
    EXPECT_TRUE(lockHeldAtReturn);
    EXPECT_FALSE(holder->executor());
}
