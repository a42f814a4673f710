#include "corvantabase/PollModule.h"

#include <tolv/log/Log.h>

#include <new>

PollModule& PollModule::Instance()
{
    static PollModule* const instance = new PollModule;
    return *instance;
}

void PollModule::Init()
{
    std::lock_guard<std::mutex> guard(m_mutex);
    m_initialised = true;
}

void PollModule::Exit()
{
    std::unique_lock<std::mutex> guard(m_mutex);
    m_initialised = false;
    m_timers.clear();
    m_currentRemoved = true;
    m_changed.notify_all();
    WaitForRunLocked(guard, true, nullptr, nullptr, false);
}

int PollModule::AddTimer(PollerFunction callback, void* clientData, int64_t delayUs, bool periodic,
                         std::mutex* lock)
{
    if (!callback || delayUs < 0 || (periodic && delayUs == 0))
        return kPollInvalidArgument;
    const auto delay = std::chrono::duration_cast<Clock::duration>(std::chrono::microseconds(delayUs));
    std::lock_guard<std::mutex> guard(m_mutex);
    if (!m_initialised)
        return kPollNotInitialized;
    try {
        m_timers.push_back(Timer{callback, clientData, periodic, delay, Clock::now() + delay, lock});
    } catch (const std::bad_alloc&) {
        return kPollOutOfMemory;
    }
    m_changed.notify_all();
    return kPollSuccess;
}

bool PollModule::RemoveTimer(PollerFunction callback, void* clientData, bool periodic)
{
    std::unique_lock<std::mutex> guard(m_mutex);
    bool removed = false;
    for (auto it = m_timers.begin(); it != m_timers.end(); ++it) {
        if (it->callback == callback && it->clientData == clientData && it->periodic == periodic) {
            m_timers.erase(it);
            removed = true;
            break;
        }
    }
    // A periodic callback that runs now is still registered until it is
    // removed: this removal stops its re-arming.
    if (!removed && periodic && m_running && !m_currentRemoved
        && RunningMatchesLocked(callback, clientData, periodic)) {
        m_currentRemoved = true;
        removed = true;
    }
    if (removed)
        m_changed.notify_all();
    WaitForRunLocked(guard, false, callback, clientData, periodic);
    return removed;
}

void PollModule::Loop(bool loop, PollExitFlag* exitFlag)
{
    std::unique_lock<std::mutex> guard(m_mutex);
    if (!m_initialised) {
        LOG_ERROR("Poll_Loop()", "The poll module is not initialised.");
        return;
    }
    if (m_looping) {
        LOG_ERROR("Poll_Loop()", "The poll loop already runs on another thread.");
        return;
    }
    m_looping = true;
    m_loopThread = std::this_thread::get_id();

    while (m_initialised && !(exitFlag && exitFlag->IsRaised())) {
        const int next = EarliestLocked();
        const auto now = Clock::now();
        if (next >= 0 && m_timers[static_cast<size_t>(next)].deadline <= now) {
            Timer timer = m_timers[static_cast<size_t>(next)];
            m_timers.erase(m_timers.begin() + next);
            RunLocked(guard, timer);
            continue;
        }
        if (!loop)
            break;
        // Any change to the table, the flag or the module notifies m_changed
        // under m_mutex, so nothing is missed between the checks above and here.
        if (next >= 0) {
            // A copy: the table may grow, and move, while the loop waits.
            const Clock::time_point deadline = m_timers[static_cast<size_t>(next)].deadline;
            m_changed.wait_until(guard, deadline);
        } else
            m_changed.wait(guard);
    }

    m_looping = false;
    m_loopThread = {};
}

void PollModule::Wake()
{
    // Taking the mutex orders the wake after a loop's flag check: the loop is
    // either before its check (and sees the flag) or already waiting.
    { std::lock_guard<std::mutex> guard(m_mutex); }
    m_changed.notify_all();
}

int PollModule::EarliestLocked() const
{
    int best = -1;
    for (size_t i = 0; i < m_timers.size(); ++i) {
        if (best < 0 || m_timers[i].deadline < m_timers[static_cast<size_t>(best)].deadline)
            best = static_cast<int>(i);
    }
    return best;
}

bool PollModule::RunningMatchesLocked(PollerFunction callback, void* clientData, bool periodic) const
{
    return m_running && m_current.callback == callback && m_current.clientData == clientData
        && m_current.periodic == periodic;
}

void PollModule::WaitForRunLocked(std::unique_lock<std::mutex>& guard, bool anyCallback, PollerFunction callback,
                                  void* clientData, bool periodic)
{
    // The loop thread cannot wait for itself: a callback that removes itself
    // or tears the module down simply finishes its run.
    if (std::this_thread::get_id() == m_loopThread)
        return;
    m_runDone.wait(guard, [&] {
        return !m_running || !(anyCallback || RunningMatchesLocked(callback, clientData, periodic));
    });
}

void PollModule::RunLocked(std::unique_lock<std::mutex>& guard, Timer timer)
{
    m_running = true;
    m_current = timer;
    m_currentRemoved = false;
    guard.unlock();
    if (timer.lock) {
        std::lock_guard<std::mutex> clientLock(*timer.lock);
        timer.callback(timer.clientData);
    } else {
        timer.callback(timer.clientData);
    }
    guard.lock();

    if (timer.periodic && !m_currentRemoved && m_initialised) {
        // Keep the period's rhythm; after a stall start afresh instead of
        // running the missed periods back to back.
        const auto now = Clock::now();
        timer.deadline += timer.period;
        if (timer.deadline <= now)
            timer.deadline = now + timer.period;
        try {
            m_timers.push_back(timer);
        } catch (const std::bad_alloc&) {
            LOG_ERROR("Poll_Loop()", "Out of memory; a periodic callback is dropped.");
        }
    }
    m_running = false;
    m_current = {};
    m_runDone.notify_all();
}
