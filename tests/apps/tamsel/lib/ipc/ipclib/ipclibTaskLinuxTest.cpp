#include "apps/tamsel/lib/ipc/ipclib/ipclibTaskLinux.h"

#include "task/TaskTestSupport.h"
#include "task/WorkTask.h"

#include <gtest/gtest.h>

#include <system_error>

using namespace tamsel::ipc;

TEST(KxIpclibTask, InitHandsOutAnExecutorAndUninitDrainsItOutsideTheLock)
{
    auto holder = KxIpclibTask::create();
    EXPECT_FALSE(holder->executor());
    ASSERT_EQ(holder->init(), KxIpcStatusSuccess);
    ASSERT_TRUE(holder->executor());

    // A callback that needs the library's lock while uninit drains the executor.
    std::mutex libraryLock;
    std::unique_lock<std::mutex> lock(libraryLock);
    Counter started, finished;
    auto task = holder->executor()->createWorkTask([&](void*, void*) {
        started.add();
        std::lock_guard<std::mutex> guard(libraryLock);
        finished.add();
    });
    holder->executor()->submitWork(task, {}, {});
    ASSERT_TRUE(started.waitFor(1));
    task.reset();
    holder->uninit(lock);  // would dead-lock if it kept the lock while draining
    EXPECT_TRUE(lock.owns_lock());
    EXPECT_EQ(finished.value(), 1);
    EXPECT_FALSE(holder->executor());

    // init again after uninit.
    ASSERT_EQ(holder->init(), KxIpcStatusSuccess);
    std::unique_lock<std::mutex> notHeld(libraryLock, std::defer_lock);
    lock.unlock();
    EXPECT_THROW(holder->uninit(notHeld), std::system_error);
    EXPECT_TRUE(holder->executor());  // nothing was torn down
    notHeld.lock();
    holder->uninit(notHeld);
}
