#pragma once
// tamsel::task: work, wait and timer tasks on a thread pool. A task is created
// unarmed and handed out as a shared pointer to its context, the handle that
// every later call takes. Times are nanoseconds.
//
// Callbacks run on pool threads, several at once; the same work task runs
// concurrently when submitted more than once. A callback may close its own
// task: the close returns at once and the callback's state stays valid until
// it returns. Closing from any other thread waits for the task's running
// callbacks. An exception escaping a callback is logged and swallowed, so that
// no peer input can take the process down through a task.

#include <chrono>
#include <functional>
#include <memory>

namespace tamsel::task {

class WtpTimerTaskContext;
class WtpWaitTaskContext;
class WtpWorkTaskContext;

// An owned untyped pointer: released with its deleter unless null.
class OwnedPointer {
public:
    using Deleter = void (*)(void*);
    OwnedPointer() noexcept = default;
    OwnedPointer(Deleter deleter, void* pointer) noexcept : m_deleter(deleter), m_pointer(pointer) {}
    OwnedPointer(OwnedPointer&& other) noexcept : m_deleter(other.m_deleter), m_pointer(other.m_pointer)
    {
        other.m_pointer = nullptr;
    }
    OwnedPointer& operator=(OwnedPointer&& other) noexcept
    {
        if (this != &other) {
            reset();
            m_deleter = other.m_deleter;
            m_pointer = other.m_pointer;
            other.m_pointer = nullptr;
        }
        return *this;
    }
    OwnedPointer(const OwnedPointer&) = delete;
    OwnedPointer& operator=(const OwnedPointer&) = delete;
    ~OwnedPointer() { reset(); }

    void* get() const noexcept { return m_pointer; }
    explicit operator bool() const noexcept { return m_pointer != nullptr; }
    void reset() noexcept
    {
        if (m_pointer != nullptr)
            m_deleter(m_pointer);
        m_pointer = nullptr;
    }

private:
    Deleter m_deleter = nullptr;
    void* m_pointer = nullptr;
};

class TimerTaskExecutor {
public:
    virtual ~TimerTaskExecutor() = default;
    // Null when the system refuses the timer.
    virtual std::shared_ptr<WtpTimerTaskContext> createTimerTask(std::function<void()> callback) = 0;
    // Arms relative to now. The due time is rounded up to 100 ns (0 fires at
    // once); the period is truncated to whole milliseconds (0: one-shot).
    virtual void setTimer(const std::shared_ptr<WtpTimerTaskContext>& task, std::chrono::nanoseconds due,
                          std::chrono::nanoseconds period) = 0;
    // One-shot at a point of the system clock.
    virtual void setTimerAbsolute(const std::shared_ptr<WtpTimerTaskContext>& task,
                                  std::chrono::system_clock::time_point when) = 0;
    virtual void cancelTimer(const std::shared_ptr<WtpTimerTaskContext>& task) = 0;
    // Waits for the task's running callbacks.
    virtual void waitForTimerCallbacks(const std::shared_ptr<WtpTimerTaskContext>& task) = 0;
    virtual void closeTimerTask(const std::shared_ptr<WtpTimerTaskContext>& task) = 0;
};

class WaitTaskExecutor {
public:
    virtual ~WaitTaskExecutor() = default;
    // Waits on `fd` becoming readable; the task keeps its own duplicate of the
    // descriptor. Null when the descriptor cannot be used. The callback must
    // consume what made the descriptor readable before arming again.
    virtual std::shared_ptr<WtpWaitTaskContext> createWaitTask(int fd, std::function<void()> callback) = 0;
    // One callback per arming; arming an armed wait does nothing.
    virtual void armWait(const std::shared_ptr<WtpWaitTaskContext>& task) = 0;
    // A signal that arrives after the disarm does not call back.
    virtual void disarmWait(const std::shared_ptr<WtpWaitTaskContext>& task) = 0;
    virtual void waitForWaitCallbacks(const std::shared_ptr<WtpWaitTaskContext>& task) = 0;
    virtual void closeWaitTask(const std::shared_ptr<WtpWaitTaskContext>& task) = 0;
};

class WorkTaskExecutor {
public:
    virtual ~WorkTaskExecutor() = default;
    // Null when the task cannot be made.
    virtual std::shared_ptr<WtpWorkTaskContext> createWorkTask(std::function<void(void*, void*)> callback) = 0;
    // One callback per submit; each callback takes at most one queued item, so
    // items are taken in submission order and never twice. A submit with two
    // null pointers queues nothing and calls back with two nulls.
    virtual void submitWork(const std::shared_ptr<WtpWorkTaskContext>& task, OwnedPointer completion,
                            OwnedPointer arguments) = 0;
    // Waits for the task's queued and running callbacks.
    virtual void waitForWorkCallbacks(const std::shared_ptr<WtpWorkTaskContext>& task) = 0;
    virtual void closeWorkTask(const std::shared_ptr<WtpWorkTaskContext>& task) = 0;
};

class TaskExecutor : public TimerTaskExecutor, public WaitTaskExecutor, public WorkTaskExecutor {};

// From inside a task's callback: the rest of that callback no longer counts
// as the task's running callback, so closing the task or waiting for its
// callbacks does not wait for it. The callback keeps running; what it uses
// must be kept alive by its own references. Nothing happens off the pool.
void DisassociateCurrentThreadFromCallback();

} // namespace tamsel::task
