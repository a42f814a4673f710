#include "support/LxMutex.h"

#include <tolv/log/Log.h>

#include <pthread.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cinttypes>

namespace {

// Every acquire and release compares the owner; a system call each time would
// dominate the cost of the logging lock.
uint32_t CurrentThreadId()
{
    thread_local const uint32_t id = static_cast<uint32_t>(gettid());
    return id;
}

} // namespace

namespace {

// pthread_mutex_timedlock measures against CLOCK_REALTIME.
timespec DeadlineAfter(uint32_t ms)
{
    timespec t{};
    clock_gettime(CLOCK_REALTIME, &t);
    t.tv_sec += ms / 1000;
    t.tv_nsec += static_cast<long>(ms % 1000) * 1000000L;
    if (t.tv_nsec >= 1000000000L) {
        t.tv_nsec -= 1000000000L;
        ++t.tv_sec;
    }
    return t;
}

// Set while this thread writes a possible-deadlock warning. Writing it takes
// the logging lock, which may be the very mutex being waited for; a nested
// warning would recurse once per threshold, so it is left out.
thread_local bool t_warningDeadlock = false;

int TimedLock(pthread_mutex_t* m, uint32_t ms)
{
    if (ms == 0)
        return pthread_mutex_trylock(m);
    const timespec deadline = DeadlineAfter(ms);
    return pthread_mutex_timedlock(m, &deadline);
}

} // namespace

LxMutex::LxMutex(bool initiallyOwned, const std::string& name) : m_data(MakeRC<LxMutexData>(name))
{
    if (initiallyOwned)
        Acquire(kInfinite);
}

LxMutex::LxMutex(pthread_mutex_t& adopted, const std::string& name) : m_data(MakeRC<LxMutexData>(adopted, name))
{
}

void LxMutex::SetDeadlockWarningMs(uint32_t ms)
{
    if (m_data)
        m_data->m_deadlockWarningMs = ms;
}

bool LxMutex::Acquire(uint32_t timeoutMs)
{
    if (!IsValid())
        return false;
    LxMutexData& d = *m_data;
    const auto address = reinterpret_cast<uintptr_t>(&d);
    int rc;
    if (timeoutMs == kInfinite) {
        rc = TimedLock(d.m_handle, d.m_deadlockWarningMs.load());
        if ((rc == ETIMEDOUT || rc == EBUSY) && !t_warningDeadlock) {
            t_warningDeadlock = true;
            LOG_WARN("LxMutex::Acquire()", "Possible deadlock trying to acquire lock 0x%" PRIxPTR
                     " held by thread 0x%04x", address, d.m_ownerThreadId.load());
            t_warningDeadlock = false;
        }
        if (rc == ETIMEDOUT || rc == EBUSY)
            rc = pthread_mutex_lock(d.m_handle);
    } else {
        rc = TimedLock(d.m_handle, timeoutMs);
    }

    if (rc == EOWNERDEAD) {
        // The holder ended while holding it; the data it guarded is the
        // caller's to judge.
        pthread_mutex_consistent(d.m_handle);
        LOG_WARN("LxMutex::Acquire()", "Acquired abandoned lock 0x%" PRIxPTR " previously held by thread 0x%04x",
                 address, d.m_ownerThreadId.load());
        d.m_depth = 0;
    } else if (rc == ETIMEDOUT || (rc == EBUSY && timeoutMs != kInfinite)) {
        return false;
    } else if (rc != 0) {
        LOG_WARN("LxMutex::Acquire()", "Error %d trying to acquire lock 0x%" PRIxPTR " held by thread 0x%04x", rc,
                 address, d.m_ownerThreadId.load());
        return false;
    }
    if (++d.m_depth == 1)
        d.m_ownerThreadId = CurrentThreadId();
    return true;
}

bool LxMutex::Release()
{
    if (!IsValid())
        return false;
    LxMutexData& d = *m_data;
    // The recorded owner with a depth above 0 is exactly the holder; anybody
    // else is refused here rather than by the unlock call.
    if (d.m_ownerThreadId.load() != CurrentThreadId() || d.m_depth.load() <= 0)
        return false;
    --d.m_depth;
    return pthread_mutex_unlock(d.m_handle) == 0;
}
