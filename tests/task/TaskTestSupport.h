#pragma once
// Event-driven waits: each has a generous deadline and fails the test instead of hanging.

#include <chrono>
#include <condition_variable>
#include <mutex>

inline constexpr std::chrono::seconds kTestDeadline{30};

// A counter that tests can wait on.
class Counter {
public:
    void add(int n = 1)
    {
        std::lock_guard<std::mutex> guard(m_lock);
        m_value += n;
        m_changed.notify_all();
    }
    int value()
    {
        std::lock_guard<std::mutex> guard(m_lock);
        return m_value;
    }
    // True when the value reached `target` before the deadline.
    bool waitFor(int target, std::chrono::milliseconds deadline = kTestDeadline)
    {
        std::unique_lock<std::mutex> guard(m_lock);
        return m_changed.wait_for(guard, deadline, [&] { return m_value >= target; });
    }

private:
    std::mutex m_lock;
    std::condition_variable m_changed;
    int m_value = 0;
};

// A gate that callbacks block on until the test opens it.
class Gate {
public:
    void open() { m_opened.add(); }
    bool pass(std::chrono::milliseconds deadline = kTestDeadline) { return m_opened.waitFor(1, deadline); }

private:
    Counter m_opened;
};
