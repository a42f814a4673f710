#include "task/LinuxThreadPoolExecutor.h"

#include "task/TaskCore.h"

#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/timerfd.h>

#include <algorithm>

namespace tamsel::task {

std::shared_ptr<LinuxThreadPoolExecutor> LinuxThreadPoolExecutor::create(Options options)
{
    options.minThreads = std::max(1u, options.minThreads);
    options.maxThreads = std::max(options.minThreads + 1, options.maxThreads);
    auto pool = std::make_shared<TaskPool>(
        TaskPool::Limits{options.minThreads, options.maxThreads, options.idleTimeout});
    if (!pool->Start()) {
        pool->Stop();
        return nullptr;
    }
    return std::make_shared<LinuxThreadPoolExecutor>(Token{}, std::move(pool));
}

LinuxThreadPoolExecutor::LinuxThreadPoolExecutor(Token, std::shared_ptr<TaskPool> pool) : m_pool(std::move(pool)) {}

LinuxThreadPoolExecutor::~LinuxThreadPoolExecutor()
{
    std::vector<std::shared_ptr<WtpTimerTaskContext>> timers;
    std::vector<std::shared_ptr<WtpWaitTaskContext>> waits;
    std::vector<std::shared_ptr<WtpWorkTaskContext>> works;
    {
        std::lock_guard<std::mutex> guard(m_lock);
        m_shuttingDown = true;
        auto handBack = [&](auto& list) {
            for (auto& context : list) {
                context->m_closing = true;
                m_closing.push_back(context.get());
            }
        };
        handBack(m_timerTasks);
        handBack(m_waitTasks);
        handBack(m_workTasks);
        timers.swap(m_timerTasks);
        waits.swap(m_waitTasks);
        works.swap(m_workTasks);
    }
    // Tasks that nobody else holds close here; the others when their holders let go.
    timers.clear();
    waits.clear();
    works.clear();
    {
        std::unique_lock<std::mutex> guard(m_lock);
        m_drained.wait(guard, [&] { return m_closing.empty(); });
    }
    m_pool->Stop();
}

void LinuxThreadPoolExecutor::closeAllTasks()
{
    std::vector<std::shared_ptr<WtpTimerTaskContext>> timers;
    std::vector<std::shared_ptr<WtpWaitTaskContext>> waits;
    std::vector<std::shared_ptr<WtpWorkTaskContext>> works;
    {
        std::lock_guard<std::mutex> guard(m_lock);
        m_refusingTasks = true;
        timers = m_timerTasks;
        waits = m_waitTasks;
        works = m_workTasks;
    }
    // Everything idle first, then everything closed: a callback still running
    // may submit to a task that comes later in the lists, and that work runs.
    for (auto& task : timers)
        waitIdle(*task->core(), true);
    for (auto& task : waits)
        waitIdle(*task->core(), true);
    for (auto& task : works)
        waitIdle(*task->core(), true);
    for (auto& task : timers)
        closeTimerTask(task);
    for (auto& task : waits)
        closeWaitTask(task);
    for (auto& task : works)
        closeWorkTask(task);
}

size_t LinuxThreadPoolExecutor::openTaskCount()
{
    std::lock_guard<std::mutex> guard(m_lock);
    return m_timerTasks.size() + m_waitTasks.size() + m_workTasks.size();
}

template <typename Context>
std::shared_ptr<Context> LinuxThreadPoolExecutor::track(std::shared_ptr<Context> context,
                                                        std::vector<std::shared_ptr<Context>>& list)
{
    {
        std::lock_guard<std::mutex> guard(m_lock);
        if (!m_shuttingDown && !m_refusingTasks) {
            list.push_back(context);
            return context;
        }
    }
    closeCore(*context->core());  // too late: the executor is going
    return nullptr;
}

template <typename Context>
void LinuxThreadPoolExecutor::untrack(const std::shared_ptr<Context>& context,
                                      std::vector<std::shared_ptr<Context>>& list)
{
    std::vector<std::shared_ptr<Context>> removed;  // released after the lock
    std::lock_guard<std::mutex> guard(m_lock);
    for (auto it = list.begin(); it != list.end();) {
        if (*it == context) {
            removed.push_back(std::move(*it));
            it = list.erase(it);
        } else {
            ++it;
        }
    }
}

void LinuxThreadPoolExecutor::closeCore(TaskCore& core)
{
    {
        std::lock_guard<std::mutex> guard(core.lock);
        core.closed = true;
        TaskPool::DetachCurrent(core);
    }
    m_pool->Unregister(core);
    if (core.kind == TaskKind::Timer) {
        const struct itimerspec off {};
        ::timerfd_settime(core.fd.get(), 0, &off, nullptr);
    }
    if (core.kind == TaskKind::Work) {
        std::deque<WorkItem> cancelled;  // released outside the lock
        std::lock_guard<std::mutex> guard(core.queueLock);
        cancelled.swap(core.queue);
    }
    // From inside a callback of the task, that callback no longer counts:
    // only the task's other callbacks are waited for.
    waitIdle(core, false);
}

void LinuxThreadPoolExecutor::waitIdle(TaskCore& core, bool includePending)
{
    std::unique_lock<std::mutex> guard(core.lock);
    TaskPool::DetachCurrent(core);  // a callback waiting for its own task does not wait for itself
    core.idle.wait(guard, [&] { return core.running == 0 && (!includePending || core.pending == 0); });
}

void LinuxThreadPoolExecutor::contextReleased(const WtpTaskContext* context)
{
    std::lock_guard<std::mutex> guard(m_lock);
    m_closing.erase(std::remove(m_closing.begin(), m_closing.end(), context), m_closing.end());
    m_drained.notify_all();
}

unsigned LinuxThreadPoolExecutor::threadCount() const
{
    return m_pool->Threads();
}

unsigned LinuxThreadPoolExecutor::peakThreadCount() const
{
    return m_pool->PeakThreads();
}

// Timers.

std::shared_ptr<WtpTimerTaskContext> LinuxThreadPoolExecutor::createTimerTask(std::function<void()> callback)
{
    auto core = std::make_shared<TaskCore>(TaskKind::Timer, m_pool->NextId());
    // Relative settings on a CLOCK_REALTIME timerfd run on the monotonic clock;
    // absolute ones follow the system clock.
    core->fd.reset(::timerfd_create(CLOCK_REALTIME, TFD_NONBLOCK | TFD_CLOEXEC));
    core->callback = std::move(callback);
    if (!core->fd || !m_pool->Register(core, EPOLLIN | EPOLLONESHOT))
        return nullptr;
    return track(std::make_shared<WtpTimerTaskContext>(this, core), m_timerTasks);
}

void LinuxThreadPoolExecutor::setTimer(const std::shared_ptr<WtpTimerTaskContext>& task, std::chrono::nanoseconds due,
                                       std::chrono::nanoseconds period)
{
    const struct itimerspec value = TimerSetting(due, period);
    ::timerfd_settime(task->core()->fd.get(), 0, &value, nullptr);
}

void LinuxThreadPoolExecutor::setTimerAbsolute(const std::shared_ptr<WtpTimerTaskContext>& task,
                                               std::chrono::system_clock::time_point when)
{
    const struct itimerspec value = AbsoluteTimerSetting(when);
    ::timerfd_settime(task->core()->fd.get(), TFD_TIMER_ABSTIME, &value, nullptr);
}

void LinuxThreadPoolExecutor::cancelTimer(const std::shared_ptr<WtpTimerTaskContext>& task)
{
    const struct itimerspec off {};
    ::timerfd_settime(task->core()->fd.get(), 0, &off, nullptr);
}

void LinuxThreadPoolExecutor::waitForTimerCallbacks(const std::shared_ptr<WtpTimerTaskContext>& task)
{
    waitIdle(*task->core(), false);
}

void LinuxThreadPoolExecutor::closeTimerTask(const std::shared_ptr<WtpTimerTaskContext>& task)
{
    closeCore(*task->core());
    untrack(task, m_timerTasks);
}

// Waits.

std::shared_ptr<WtpWaitTaskContext> LinuxThreadPoolExecutor::createWaitTask(int fd, std::function<void()> callback)
{
    auto core = std::make_shared<TaskCore>(TaskKind::Wait, m_pool->NextId());
    // Our own duplicate: two tasks may wait on one descriptor, and the caller
    // may close theirs while the task lives.
    core->fd.reset(::fcntl(fd, F_DUPFD_CLOEXEC, 0));
    core->callback = std::move(callback);
    // Registered disarmed: one-shot with no events asked for.
    if (!core->fd || !m_pool->Register(core, EPOLLONESHOT))
        return nullptr;
    return track(std::make_shared<WtpWaitTaskContext>(this, core), m_waitTasks);
}

// The flag and the registration change together under the task's lock, so
// that the last of two racing calls decides both.
void LinuxThreadPoolExecutor::armWait(const std::shared_ptr<WtpWaitTaskContext>& task)
{
    TaskCore& core = *task->core();
    std::lock_guard<std::mutex> guard(core.lock);
    if (core.armed.exchange(1) == 0 && !core.closed)
        m_pool->Rearm(core, EPOLLIN | EPOLLONESHOT);
}

void LinuxThreadPoolExecutor::disarmWait(const std::shared_ptr<WtpWaitTaskContext>& task)
{
    TaskCore& core = *task->core();
    std::lock_guard<std::mutex> guard(core.lock);
    if (core.armed.exchange(0) == 1 && !core.closed)
        m_pool->Rearm(core, EPOLLONESHOT);
}

void LinuxThreadPoolExecutor::waitForWaitCallbacks(const std::shared_ptr<WtpWaitTaskContext>& task)
{
    waitIdle(*task->core(), false);
}

void LinuxThreadPoolExecutor::closeWaitTask(const std::shared_ptr<WtpWaitTaskContext>& task)
{
    task->core()->armed.store(0);
    closeCore(*task->core());
    untrack(task, m_waitTasks);
}

// Work.

std::shared_ptr<WtpWorkTaskContext> LinuxThreadPoolExecutor::createWorkTask(std::function<void(void*, void*)> callback)
{
    auto core = std::make_shared<TaskCore>(TaskKind::Work, m_pool->NextId());
    core->workCallback = std::move(callback);
    return track(std::make_shared<WtpWorkTaskContext>(this, core), m_workTasks);
}

void LinuxThreadPoolExecutor::submitWork(const std::shared_ptr<WtpWorkTaskContext>& task, OwnedPointer completion,
                                         OwnedPointer arguments)
{
    const auto& core = task->core();
    {
        std::lock_guard<std::mutex> guard(core->lock);
        if (core->closed)
            return;  // what was handed in is released on return
        ++core->pending;
    }
    if (completion || arguments) {
        std::lock_guard<std::mutex> guard(core->queueLock);
        core->queue.push_back(WorkItem{std::move(completion), std::move(arguments)});
    }
    m_pool->Post(core);
}

void LinuxThreadPoolExecutor::waitForWorkCallbacks(const std::shared_ptr<WtpWorkTaskContext>& task)
{
    waitIdle(*task->core(), true);
}

void LinuxThreadPoolExecutor::closeWorkTask(const std::shared_ptr<WtpWorkTaskContext>& task)
{
    closeCore(*task->core());
    untrack(task, m_workTasks);
}

// Contexts.

WtpTaskContext::WtpTaskContext(LinuxThreadPoolExecutor* owner, std::shared_ptr<TaskCore> core)
    : m_owner(owner), m_core(std::move(core))
{
}

WtpTaskContext::~WtpTaskContext()
{
    if (m_closing) {
        m_owner->closeCore(*m_core);
        m_owner->contextReleased(this);
    }
}

TimerTaskExecutor* WtpTimerTaskContext::executor() const
{
    return m_owner;
}

WaitTaskExecutor* WtpWaitTaskContext::executor() const
{
    return m_owner;
}

WorkTaskExecutor* WtpWorkTaskContext::executor() const
{
    return m_owner;
}

} // namespace tamsel::task
