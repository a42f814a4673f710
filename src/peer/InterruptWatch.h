#pragma once
// SIGINT and SIGTERM for the peer: taken on a thread of its own (signalfd),
// so that an interrupt is a flag and a call rather than a handler, and a copy
// can stop between requests, release its drive and remove what it wrote.
//
// Construct it first in main, before any other thread exists: the signals
// are blocked in the constructing thread and so in every thread created
// after it. Programs started later must unblock them (posix_spawn with an
// empty signal mask).

#include <atomic>
#include <functional>
#include <mutex>
#include <thread>

#include <tolv/platform/UniqueFd.h>

class InterruptWatch {
public:
    InterruptWatch();
    ~InterruptWatch();
    InterruptWatch(const InterruptWatch&) = delete;
    InterruptWatch& operator=(const InterruptWatch&) = delete;

    // Called once, on the watch thread, when the first signal comes; at once
    // when one came already. Replacing it (with null too) waits for a call
    // in progress, so what the old one used may go afterwards.
    void OnInterrupt(std::function<void()> callback);
    // The signal that came, or 0.
    int signal() const { return m_signal.load(); }
    bool interrupted() const { return signal() != 0; }

private:
    void Watch();

    tolv::platform::UniqueFd m_signals;
    tolv::platform::UniqueFd m_stop;
    std::atomic<int> m_signal{0};
    std::mutex m_mutex;
    std::function<void()> m_callback;  // guarded by m_mutex
    std::thread m_thread;
};
