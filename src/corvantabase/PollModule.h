#pragma once
// The state behind the Poll_* calls: one process-wide table of timer
// registrations and the loop that runs them. Every change to the table, a
// raised exit flag and the module's tear-down wake the loop through one
// condition variable; the loop otherwise sleeps until its next deadline.

#include "corvantabase/Poll.h"

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <thread>
#include <vector>

class PollModule {
public:
    // The one module of the process. It is never destroyed, so an exit flag
    // raised during process exit still finds it.
    static PollModule& Instance();

    void Init();
    void Exit();
    int AddTimer(PollerFunction callback, void* clientData, int64_t delayUs, bool periodic, std::mutex* lock);
    bool RemoveTimer(PollerFunction callback, void* clientData, bool periodic);
    void Loop(bool loop, PollExitFlag* exitFlag);
    // Makes a waiting loop look at its exit flag and the table again.
    void Wake();

private:
    using Clock = std::chrono::steady_clock;

    struct Timer {
        PollerFunction callback;
        void* clientData;
        bool periodic;
        Clock::duration period;
        Clock::time_point deadline;
        std::mutex* lock;
    };

    PollModule() = default;

    // Index of the earliest timer, or -1 for none. Needs m_mutex.
    int EarliestLocked() const;
    bool RunningMatchesLocked(PollerFunction callback, void* clientData, bool periodic) const;
    // Waits until the running callback (if any, and if it is not ours) is done.
    void WaitForRunLocked(std::unique_lock<std::mutex>& guard, bool anyCallback, PollerFunction callback,
                          void* clientData, bool periodic);
    // Runs `timer` with m_mutex released, then re-arms it if it is periodic
    // and was not removed meanwhile.
    void RunLocked(std::unique_lock<std::mutex>& guard, Timer timer);

    std::mutex m_mutex;
    std::condition_variable m_changed; // table changed, exit flag raised or module torn down
    std::condition_variable m_runDone; // the running callback returned
    bool m_initialised = false;
    bool m_looping = false;
    std::thread::id m_loopThread;
    std::vector<Timer> m_timers;
    // The callback the loop runs now; it is out of m_timers while it runs.
    bool m_running = false;
    Timer m_current{};
    bool m_currentRemoved = false;
};
