#include "task/LinuxThreadPoolExecutor.h"
#include "task/TaskTestSupport.h"
#include <tamsel/task/WorkTask.h>

#include "common/LogCapture.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

using namespace tolv::log;

using namespace tamsel::task;

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
    auto weak = CreateWorkTask<void(std::shared_ptr<int>)>(executor, [&](std::shared_ptr<int> p) {
        *p += 1;
        done.add();
    });
    auto value = std::make_shared<int>(41);
    weak.submit(value);
    ASSERT_TRUE(done.waitFor(1));
    executor->waitForWorkCallbacks(weak.context());
    EXPECT_EQ(*value, 42);
    EXPECT_EQ(value.use_count(), 1);  // the packed copy is gone
    task.close();
    weak.close();

    ScopedLogCapture quiet(LOG_LEVEL_ALWAYS);
    auto none = CreateWorkTask<void()>(executor, [&] { done.add(); });
    executor->submitWork(none.context(), {}, {});  // no arguments at all still calls fn
    ASSERT_TRUE(done.waitFor(2));
}
