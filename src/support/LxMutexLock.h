#pragma once
// Holds an LxMutex for a scope; Unlock and Lock let a holder step out around a
// wait or a callback and come back.

#include "support/LxMutex.h"

class LxMutexLock {
public:
    explicit LxMutexLock(LxMutex& mutex) : m_mutex(mutex) { Lock(); }
    ~LxMutexLock()
    {
        if (m_held)
            m_mutex.Release();
    }
    LxMutexLock(const LxMutexLock&) = delete;
    LxMutexLock& operator=(const LxMutexLock&) = delete;

    void Lock() { m_held = m_mutex.Acquire(LxMutex::kInfinite); }
    void Unlock()
    {
        if (m_held)
            m_mutex.Release();
        m_held = false;
    }
    bool IsHeld() const { return m_held; }

private:
    LxMutex& m_mutex;
    bool m_held = false;
};
