#include "task/TaskCore.h"

#include <tolv/log/Log.h>

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <algorithm>
#include <utility>
#include <exception>

namespace tamsel::task {

namespace {

constexpr uint64_t kStopId = 1;
constexpr uint64_t kWorkId = 2;

thread_local TaskCore* t_current = nullptr;
thread_local TaskPool* t_pool = nullptr;
// Set when the running callback closed its own task and stopped counting itself.
thread_local bool t_detached = false;

// Marks the calling thread as running `core` for the callback's duration.
class CurrentTask {
public:
    explicit CurrentTask(TaskCore* core) : m_previous(t_current) { t_current = core; }
    ~CurrentTask() { t_current = m_previous; }
    CurrentTask(const CurrentTask&) = delete;
    CurrentTask& operator=(const CurrentTask&) = delete;

private:
    TaskCore* m_previous;
};

template <typename Fn>
void Guarded(Fn&& fn)
{
    try {
        fn();
    } catch (const std::exception& e) {
        LOG_ERROR("TaskPool::Dispatch()", "A task callback raised an exception: %s", e.what());
    } catch (...) {
        LOG_ERROR("TaskPool::Dispatch()", "A task callback raised an exception.");
    }
}

// Counts a callback in (false when the task is closed) and out.
bool Enter(TaskCore& core, bool fromPending)
{
    std::lock_guard<std::mutex> guard(core.lock);
    if (fromPending)
        --core.pending;
    if (core.closed) {
        core.idle.notify_all();
        return false;
    }
    ++core.running;
    return true;
}

void Leave(TaskCore& core)
{
    std::lock_guard<std::mutex> guard(core.lock);
    if (!std::exchange(t_detached, false))
        --core.running;
    core.idle.notify_all();
}

} // namespace

struct itimerspec TimerSetting(std::chrono::nanoseconds due, std::chrono::nanoseconds period)
{
    struct itimerspec value {};
    const int64_t dueNs = due.count() <= 0 ? 1 : (due.count() + 99) / 100 * 100;
    value.it_value.tv_sec = static_cast<time_t>(dueNs / 1000000000);
    value.it_value.tv_nsec = static_cast<long>(dueNs % 1000000000);
    const int64_t periodMs = period.count() / 1000000;
    if (periodMs > 0) {
        value.it_interval.tv_sec = static_cast<time_t>(periodMs / 1000);
        value.it_interval.tv_nsec = static_cast<long>(periodMs % 1000 * 1000000);
    }
    return value;
}

struct itimerspec AbsoluteTimerSetting(std::chrono::system_clock::time_point when)
{
    const int64_t ns = std::max<int64_t>(
        1, std::chrono::duration_cast<std::chrono::nanoseconds>(when.time_since_epoch()).count() / 100 * 100);
    struct itimerspec value {};
    value.it_value.tv_sec = static_cast<time_t>(ns / 1000000000);
    value.it_value.tv_nsec = static_cast<long>(ns % 1000000000);
    return value;
}

TaskCore* TaskPool::Current()
{
    return t_current;
}

void TaskPool::DetachCurrent(TaskCore& core)
{
    // The caller holds core.lock.
    if (t_current == &core && !t_detached) {
        t_detached = true;
        --core.running;
    }
}

void DisassociateCurrentThreadFromCallback()
{
    TaskCore* core = t_current;
    if (core == nullptr)
        return;
    std::lock_guard<std::mutex> guard(core->lock);
    TaskPool::DetachCurrent(*core);
    core->idle.notify_all();
}

TaskPool::TaskPool(Limits limits) : m_limits(limits) {}

TaskPool::~TaskPool() = default;

bool TaskPool::Start()
{
    m_epoll.reset(::epoll_create1(EPOLL_CLOEXEC));
    m_stopFd.reset(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    m_workFd.reset(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK | EFD_SEMAPHORE));
    if (!m_epoll || !m_stopFd || !m_workFd)
        return false;
    epoll_event stop{};
    stop.events = EPOLLIN;
    stop.data.u64 = kStopId;
    epoll_event work{};
    work.events = EPOLLIN | EPOLLONESHOT;
    work.data.u64 = kWorkId;
    if (::epoll_ctl(m_epoll.get(), EPOLL_CTL_ADD, m_stopFd.get(), &stop) != 0 ||
        ::epoll_ctl(m_epoll.get(), EPOLL_CTL_ADD, m_workFd.get(), &work) != 0)
        return false;
    std::lock_guard<std::mutex> guard(m_lock);
    Spawn();
    return m_threads > 0;
}

void TaskPool::Stop()
{
    std::unique_lock<std::mutex> guard(m_lock);
    if (!m_stopping) {
        m_stopping = true;
        const uint64_t one = 1;
        [[maybe_unused]] ssize_t n = ::write(m_stopFd.get(), &one, sizeof one);
    }
    const unsigned self = t_pool == this ? 1 : 0;
    m_threadsGone.wait(guard, [&] { return m_threads == self; });
    // What was posted but never run goes now, on the stopping thread, not
    // later on a thread that outlives the executor.
    auto runQueue = std::move(m_runQueue);
    auto registry = std::move(m_registry);
    m_runQueue.clear();
    m_registry.clear();
    // No other thread uses the descriptors any more (a pool thread calling
    // this checks for the stop before it waits again): close them now rather
    // than when the last thread lets go of the pool.
    m_workFd.reset();
    m_stopFd.reset();
    m_epoll.reset();
    guard.unlock();
}

unsigned TaskPool::Threads()
{
    std::lock_guard<std::mutex> guard(m_lock);
    return m_threads;
}

unsigned TaskPool::PeakThreads()
{
    std::lock_guard<std::mutex> guard(m_lock);
    return m_peak;
}

void TaskPool::Spawn()
{
    ++m_threads;
    ++m_idle;  // counted idle from the start, so that a burst spawns one thread, not many
    if (m_threads > m_peak)
        m_peak = m_threads;
    try {
        std::thread([self = shared_from_this()] { self->Run(); }).detach();
    } catch (const std::system_error&) {
        --m_threads;
        --m_idle;
        LOG_ERROR("TaskPool::Spawn()", "Could not start a pool thread (%u running).", m_threads);
    }
}

void TaskPool::Run()
{
    t_pool = this;
    std::unique_lock<std::mutex> guard(m_lock);
    for (;;) {
        if (m_stopping)
            break;
        guard.unlock();
        epoll_event event{};
        const int n = ::epoll_wait(m_epoll.get(), &event, 1, static_cast<int>(m_limits.idleTimeout.count()));
        guard.lock();
        if (m_stopping)
            break;
        if (n == 0 || (n < 0 && errno != EINTR)) {
            // Idle for the whole time-out: retire, down to the minimum, and
            // never the last thread waiting for events.
            if (m_threads > m_limits.minThreads && m_idle > 1)
                break;
            continue;
        }
        if (n < 0)
            continue;
        // This thread goes busy. Keep one thread waiting, up to the bound, so
        // that callbacks that block cannot starve the others.
        --m_idle;
        if (m_idle == 0 && m_threads < m_limits.maxThreads)
            Spawn();
        guard.unlock();
        Dispatch(event.data.u64);
        guard.lock();
        ++m_idle;
    }
    --m_idle;
    --m_threads;
    m_threadsGone.notify_all();
    guard.unlock();
    t_pool = nullptr;
}

void TaskPool::Dispatch(uint64_t id)
{
    if (id == kStopId)
        return;
    if (id == kWorkId) {
        RunWork();
        return;
    }
    std::shared_ptr<TaskCore> core;
    {
        std::lock_guard<std::mutex> guard(m_lock);
        auto it = m_registry.find(id);
        if (it == m_registry.end())
            return;  // closed after the event was reported
        core = it->second;
    }
    RunTask(core);
}

void TaskPool::RunTask(const std::shared_ptr<TaskCore>& core)
{
    if (!Enter(*core, false))
        return;
    {
        CurrentTask current(core.get());
        if (core->kind == TaskKind::Timer) {
            uint64_t expirations = 0;
            const bool expired = ::read(core->fd.get(), &expirations, sizeof expirations) == sizeof expirations;
            // A periodic timer must be able to fire again while this callback runs.
            Rearm(*core, EPOLLIN | EPOLLONESHOT);
            if (expired)  // a cancel or a new setting may have cleared the expiry
                Guarded([&] { core->callback(); });
        } else if (core->armed.exchange(0) == 1) {  // a disarm that raced the signal wins
            Guarded([&] { core->callback(); });
        }
    }
    Leave(*core);
}

void TaskPool::RunWork()
{
    uint64_t count = 0;
    const bool taken = ::read(m_workFd.get(), &count, sizeof count) == sizeof count;
    epoll_event work{};
    work.events = EPOLLIN | EPOLLONESHOT;
    work.data.u64 = kWorkId;
    ::epoll_ctl(m_epoll.get(), EPOLL_CTL_MOD, m_workFd.get(), &work);
    if (!taken)
        return;
    std::shared_ptr<TaskCore> core;
    {
        std::lock_guard<std::mutex> guard(m_lock);
        if (m_runQueue.empty())
            return;
        core = std::move(m_runQueue.front());
        m_runQueue.pop_front();
    }
    if (!Enter(*core, true))
        return;
    {
        CurrentTask current(core.get());
        WorkItem item;
        bool hasItem = false;
        {
            std::lock_guard<std::mutex> guard(core->queueLock);
            if (!core->queue.empty()) {
                item = std::move(core->queue.front());
                core->queue.pop_front();
                hasItem = true;
            }
        }
        Guarded([&] {
            if (hasItem)
                core->workCallback(item.completion.get(), item.arguments.get());
            else
                core->workCallback(nullptr, nullptr);
        });
    }  // the item's arguments, then its completion, are released here
    Leave(*core);
}

bool TaskPool::Register(const std::shared_ptr<TaskCore>& core, uint32_t events)
{
    {
        std::lock_guard<std::mutex> guard(m_lock);
        m_registry[core->id] = core;
    }
    epoll_event event{};
    event.events = events;
    event.data.u64 = core->id;
    if (::epoll_ctl(m_epoll.get(), EPOLL_CTL_ADD, core->fd.get(), &event) == 0)
        return true;
    std::lock_guard<std::mutex> guard(m_lock);
    m_registry.erase(core->id);
    return false;
}

void TaskPool::Rearm(const TaskCore& core, uint32_t events)
{
    epoll_event event{};
    event.events = events;
    event.data.u64 = core.id;
    // ENOENT after a close is expected and harmless.
    ::epoll_ctl(m_epoll.get(), EPOLL_CTL_MOD, core.fd.get(), &event);
}

void TaskPool::Unregister(TaskCore& core)
{
    if (core.fd)
        ::epoll_ctl(m_epoll.get(), EPOLL_CTL_DEL, core.fd.get(), nullptr);
    std::lock_guard<std::mutex> guard(m_lock);
    m_registry.erase(core.id);
}

void TaskPool::Post(const std::shared_ptr<TaskCore>& core)
{
    {
        std::lock_guard<std::mutex> guard(m_lock);
        m_runQueue.push_back(core);
    }
    const uint64_t one = 1;
    [[maybe_unused]] ssize_t n = ::write(m_workFd.get(), &one, sizeof one);
}

} // namespace tamsel::task
