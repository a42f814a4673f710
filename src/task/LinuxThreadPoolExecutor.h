#pragma once
// The executor on Linux: a pool of threads sharing one epoll instance. A wait
// task is a descriptor registered one-shot and re-armed per armWait; a timer
// task is a timerfd; work callbacks are posted through a semaphore eventfd.
//
// The pool keeps one thread waiting on epoll while it is below its bound, so a
// callback that blocks (a slow disk, a pipe read) never stops the others; idle
// threads retire after the idle time-out, down to the minimum.
//
// Lock order: m_lock (task lists) is never held while a callback runs or while
// a task is being closed.

#include <tamsel/task/TaskContexts.h>
#include <tamsel/task/TaskExecutor.h>

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <vector>

namespace tamsel::task {

class TaskPool;

class LinuxThreadPoolExecutor final : public TaskExecutor {
public:
    struct Options {
        unsigned minThreads = 1;
        // Bounds the threads that callbacks blocked in I/O can hold; see docs/task-executor.md.
        unsigned maxThreads = 128;
        std::chrono::milliseconds idleTimeout{10000};
    };

    // Null when the epoll instance or the first thread cannot be had.
    static std::shared_ptr<LinuxThreadPoolExecutor> create(Options options);
    static std::shared_ptr<LinuxThreadPoolExecutor> create() { return create(Options{}); }

    // Closes every task still registered and waits until their last handles
    // are released, then stops the threads.
    ~LinuxThreadPoolExecutor() override;

    std::shared_ptr<WtpTimerTaskContext> createTimerTask(std::function<void()> callback) override;
    void setTimer(const std::shared_ptr<WtpTimerTaskContext>& task, std::chrono::nanoseconds due,
                  std::chrono::nanoseconds period) override;
    void setTimerAbsolute(const std::shared_ptr<WtpTimerTaskContext>& task,
                          std::chrono::system_clock::time_point when) override;
    void cancelTimer(const std::shared_ptr<WtpTimerTaskContext>& task) override;
    void waitForTimerCallbacks(const std::shared_ptr<WtpTimerTaskContext>& task) override;
    void closeTimerTask(const std::shared_ptr<WtpTimerTaskContext>& task) override;

    std::shared_ptr<WtpWaitTaskContext> createWaitTask(int fd, std::function<void()> callback) override;
    void armWait(const std::shared_ptr<WtpWaitTaskContext>& task) override;
    void disarmWait(const std::shared_ptr<WtpWaitTaskContext>& task) override;
    void waitForWaitCallbacks(const std::shared_ptr<WtpWaitTaskContext>& task) override;
    void closeWaitTask(const std::shared_ptr<WtpWaitTaskContext>& task) override;

    std::shared_ptr<WtpWorkTaskContext> createWorkTask(std::function<void(void*, void*)> callback) override;
    void submitWork(const std::shared_ptr<WtpWorkTaskContext>& task, OwnedPointer completion,
                    OwnedPointer arguments) override;
    void waitForWorkCallbacks(const std::shared_ptr<WtpWorkTaskContext>& task) override;
    void closeWorkTask(const std::shared_ptr<WtpWorkTaskContext>& task) override;

    // For every task: waits for its submitted and running callbacks, with no
    // time-out, then closes it. Tasks made afterwards are refused (null).
    // Called from inside a callback of this executor, that callback is not
    // waited for, as when a task closes itself.
    void closeAllTasks();

    // Pool statistics.
    unsigned threadCount() const;
    unsigned peakThreadCount() const;
    // Tasks created and not yet closed.
    size_t openTaskCount();

    struct Token {};  // keeps the constructor for create() and make_shared
    LinuxThreadPoolExecutor(Token, std::shared_ptr<TaskPool> pool);

private:
    friend class WtpTaskContext;

    template <typename Context>
    std::shared_ptr<Context> track(std::shared_ptr<Context> context, std::vector<std::shared_ptr<Context>>& list);
    template <typename Context>
    void untrack(const std::shared_ptr<Context>& context, std::vector<std::shared_ptr<Context>>& list);

    // Stops the task's callbacks and waits for those running, unless the caller
    // is one of them.
    void closeCore(TaskCore& core);
    void waitIdle(TaskCore& core, bool includePending);
    // A context handed back at shutdown has closed itself.
    void contextReleased(const WtpTaskContext* context);

    std::shared_ptr<TaskPool> m_pool;

    std::mutex m_lock;  // guards everything below
    std::vector<std::shared_ptr<WtpTimerTaskContext>> m_timerTasks;
    std::vector<std::shared_ptr<WtpWaitTaskContext>> m_waitTasks;
    std::vector<std::shared_ptr<WtpWorkTaskContext>> m_workTasks;
    bool m_shuttingDown = false;
    bool m_refusingTasks = false;  // set by closeAllTasks
    std::condition_variable m_drained;
    std::vector<const WtpTaskContext*> m_closing;
};

} // namespace tamsel::task
