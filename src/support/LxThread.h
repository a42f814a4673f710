#pragma once
// A named thread that runs a callback in cycles: once at start, then again
// whenever the wake event is signalled or the interval passes, until the
// callback returns false or Stop is called. The kernel gets the first 15
// bytes of the name.
//
// A handle is not copyable. Destroying the handle of a running thread detaches
// the thread, which ends at its next cycle without calling the callback again.

#include "support/LxThreadData.h"
#include "support/RCPtr.h"

#include <string>

class LxThread {
public:
    explicit LxThread(const std::string& name);
    ~LxThread();
    LxThread(const LxThread&) = delete;
    LxThread& operator=(const LxThread&) = delete;

    // Starts the thread and returns once it runs. False when there is no
    // callback or a thread was started and not yet stopped. `intervalMs` of
    // LxEvent::kInfinite: no periodic cycle.
    bool Start(LxThreadCallback callback, void* context, uint32_t intervalMs);
    // Asks the thread to stop and waits for it; false on time-out and from
    // the thread itself (it cannot wait for itself; it stops after the cycle).
    bool Stop(uint32_t timeoutMs);
    bool WaitForStop(uint32_t timeoutMs);
    // Starts the next cycle now.
    bool Wake();

    bool IsRunning();
    bool IsCurrentThread();
    const std::string& GetName() const { return m_data->m_name; }

    LxEvent GetStopEvent() const { return m_data->m_stopEvent; }
    LxEvent GetExitedEvent() const { return m_data->m_exitedEvent; }
    LxEvent GetThreadHandleEvent();

private:
    RCPtr<LxThreadData> m_data;
};
