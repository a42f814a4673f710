#pragma once
// Task handles. A caller holds a std::shared_ptr to the context; the executor
// holds one more until the task is closed, so a task lives at least until it is
// closed (explicitly, or by the executor's shutdown).

#include <tamsel/task/TaskExecutor.h>

#include <memory>

namespace tamsel::task {

class LinuxThreadPoolExecutor;
struct TaskCore;

class WtpTaskContext {
public:
    WtpTaskContext(LinuxThreadPoolExecutor* owner, std::shared_ptr<TaskCore> core);
    // When the executor's shutdown handed this task back, the last release
    // closes it and tells the executor, which waits for that.
    virtual ~WtpTaskContext();
    WtpTaskContext(const WtpTaskContext&) = delete;
    WtpTaskContext& operator=(const WtpTaskContext&) = delete;

    const std::shared_ptr<TaskCore>& core() const { return m_core; }

protected:
    LinuxThreadPoolExecutor* m_owner;  // valid until the owner has drained its closing tasks

private:
    friend class LinuxThreadPoolExecutor;
    std::shared_ptr<TaskCore> m_core;
    bool m_closing = false;  // guarded by the owner's lock
};

class WtpTimerTaskContext final : public WtpTaskContext {
public:
    using WtpTaskContext::WtpTaskContext;
    TimerTaskExecutor* executor() const;
};

class WtpWaitTaskContext final : public WtpTaskContext {
public:
    using WtpTaskContext::WtpTaskContext;
    WaitTaskExecutor* executor() const;
};

class WtpWorkTaskContext final : public WtpTaskContext {
public:
    using WtpTaskContext::WtpTaskContext;
    WorkTaskExecutor* executor() const;
};

} // namespace tamsel::task
