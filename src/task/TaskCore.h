#pragma once
// Internals of the epoll thread pool: the per-task state that callbacks run
// on, and the pool of threads that dispatch epoll events to it.
//
// Lock order: TaskPool::m_lock and TaskCore::lock are never held together;
// TaskCore::queueLock is taken alone. No lock is held while a callback runs.

#include <tamsel/task/TaskExecutor.h>

#include <tolv/platform/UniqueFd.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <sys/timerfd.h>

#include <thread>
#include <unordered_map>

namespace tamsel::task {

// What a relative setting asks of the timerfd: the due time rounded up to
// 100 ns (0 or less: at once, which timerfd spells as 1 ns since 0 disarms),
// the period in whole milliseconds (under 1 ms: none, so one-shot).
struct itimerspec TimerSetting(std::chrono::nanoseconds due, std::chrono::nanoseconds period);
// An absolute setting on the system clock, at 100 ns resolution.
struct itimerspec AbsoluteTimerSetting(std::chrono::system_clock::time_point when);

enum class TaskKind { Timer, Wait, Work };

struct WorkItem {
    OwnedPointer completion;  // released second
    OwnedPointer arguments;   // released first (members are destroyed in reverse)
};

// The state that a running callback holds on to: a callback keeps its TaskCore
// alive, so a task closed from inside its own callback stays valid until the
// callback returns.
struct TaskCore {
    TaskCore(TaskKind kind, uint64_t id) : kind(kind), id(id) {}

    const TaskKind kind;
    const uint64_t id;               // the key of its epoll registration
    tolv::platform::UniqueFd fd;           // timerfd, or the wait's duplicate; none for work

    std::mutex lock;                 // guards the three below
    std::condition_variable idle;    // signalled when running and pending fall
    int running = 0;                 // callbacks now running
    int pending = 0;                 // work callbacks posted but not yet started
    bool closed = false;

    std::atomic<uint8_t> armed{0};   // wait tasks: 1 while a wait is registered

    std::function<void()> callback;                 // timer and wait
    std::function<void(void*, void*)> workCallback; // work
    std::mutex queueLock;                           // guards queue
    std::deque<WorkItem> queue;
};

// The threads and the epoll instance. Shared between the executor and every
// pool thread, so that a pool thread that ends up destroying the executor can
// still finish its loop safely.
class TaskPool : public std::enable_shared_from_this<TaskPool> {
public:
    struct Limits {
        unsigned minThreads;
        unsigned maxThreads;
        std::chrono::milliseconds idleTimeout;
    };

    explicit TaskPool(Limits limits);
    ~TaskPool();
    // Creates the epoll instance and the first thread; false on failure.
    bool Start();
    // Stops every thread but the caller's own and waits for them.
    void Stop();

    // Registration of a task's descriptor, and the look-up by id.
    bool Register(const std::shared_ptr<TaskCore>& core, uint32_t events);
    void Rearm(const TaskCore& core, uint32_t events);
    void Unregister(TaskCore& core);
    // Posts one work callback of `core`.
    void Post(const std::shared_ptr<TaskCore>& core);
    uint64_t NextId() { return m_nextId.fetch_add(1); }

    // Statistics for tests and docs.
    unsigned Threads();
    unsigned PeakThreads();

    // The task whose callback this thread runs, or null.
    static TaskCore* Current();
    // With core.lock held, from inside one of core's callbacks: stops counting
    // that callback as running, so that waits for the task's other callbacks
    // do not wait for it.
    static void DetachCurrent(TaskCore& core);

private:
    void Spawn();  // with m_lock held
    void Run();
    void Dispatch(uint64_t id);
    void RunWork();
    void RunTask(const std::shared_ptr<TaskCore>& core);

    const Limits m_limits;
    tolv::platform::UniqueFd m_epoll;
    tolv::platform::UniqueFd m_stopFd;     // level-triggered, never read: wakes every thread
    tolv::platform::UniqueFd m_workFd;     // semaphore eventfd: one count per posted work callback
    std::atomic<uint64_t> m_nextId{16};

    std::mutex m_lock;               // guards everything below
    std::condition_variable m_threadsGone;
    bool m_stopping = false;
    unsigned m_threads = 0;
    unsigned m_idle = 0;
    unsigned m_peak = 0;
    std::unordered_map<uint64_t, std::shared_ptr<TaskCore>> m_registry;
    std::deque<std::shared_ptr<TaskCore>> m_runQueue;
};

} // namespace tamsel::task
