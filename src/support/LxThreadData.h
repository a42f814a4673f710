#pragma once
// The state of one LxThread, shared by the handle and the running thread, so a
// detached thread keeps it until its last cycle ends.
//
// Lock order: m_lock guards every field below and is a leaf: it is released
// around each callback call and each wait, and nothing else is taken under it
// except the logging lock.

#include "support/LxEvent.h"
#include "support/LxMutex.h"
#include "support/RCObject.h"

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <thread>

class LxThread;

// Called once per cycle with the start context and the owning handle (null
// once the handle is gone); false ends the thread.
using LxThreadCallback = std::function<bool(void* context, LxThread* owner)>;

class LxThreadData final : public RCObject {
public:
    LxThreadData(std::string name, LxThread* owner);
    LxThreadData(const LxThreadData&) = delete;
    LxThreadData& operator=(const LxThreadData&) = delete;

    // The cycle loop of the thread; see LxThread.
    void Run();
    // Waits for the thread to end; false from the thread itself and on time-out.
    bool WaitForStop(uint32_t timeoutMs);
    // The handle is going while the thread may run on: let it end by itself.
    void MarkDeleted();

    const std::string m_name;
    LxThreadCallback m_callback;
    void* m_context = nullptr;
    uint32_t m_interval = LxEvent::kInfinite;
    // Kernel id of the running thread, 0 when none; read without the lock.
    std::atomic<uint32_t> m_threadId{0};
    std::unique_ptr<std::thread> m_thread;
    LxThread* m_owner;
    bool m_deleted = false;
    LxEvent m_wakeEvent{false, false};
    LxEvent m_stopEvent{true, false};
    LxEvent m_exitedEvent{true, false};
    LxMutex m_lock;
    // Set when the thread function returns by any road (also through
    // pthread_exit), so its end can be waited on with the other events.
    LxEvent m_threadHandleEvent;

private:
    void Join();
    void Detach();
};
